# shellcheck shell=sh
# To be sourced.

# need_packages NAME...: installs those Debian packages that are not there yet. apt-get, and with it
# the rights of root, is only asked for when one is missing.
need_packages() {
    _missing=
    for _package in "$@"; do
        _state=$(dpkg-query -W -f '${db:Status-Status} ' "$_package" 2>/dev/null) || _state=
        case " $_state" in
        *" installed "*) ;; # and not "not-installed"
        *) _missing="$_missing $_package" ;;
        esac
    done
    [ -n "$_missing" ] || return 0
    if ! command -v apt-get >/dev/null; then
        echo "error: this is no Debian system; provide what there is in:$_missing" >&2
        return 1
    fi
    if [ "$(id -u)" -eq 0 ]; then
        _sudo=
    elif command -v sudo >/dev/null; then
        _sudo=sudo
    else
        echo "error: neither root nor sudo; have root run: apt-get install$_missing" >&2
        return 1
    fi
    echo "installing:$_missing"
    # A fresh machine has no package lists. Words are meant to be split here.
    # shellcheck disable=SC2086
    if ! { $_sudo apt-get -qq update &&
        $_sudo env DEBIAN_FRONTEND=noninteractive \
            apt-get -qq -y -o Dpkg::Use-Pty=0 --no-install-recommends install $_missing </dev/null; } >&2; then
        echo "error: apt-get could not install:$_missing" >&2
        return 1
    fi
}
