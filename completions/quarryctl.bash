# shellcheck shell=bash
# Completion of quarryctl's verbs, options, devices and labels, for bash 4.4 and later.

# Takes quotes and backslashes off the beginning of a word. Sets text, and open to the quote that is
# not closed yet.
_quarryctl_unquote() {
    local word=$1 char
    local -i i
    text='' open=''
    for ((i = 0; i < ${#word}; i++)); do
        char=${word:i:1}
        case $open$char in
        \' | \")
            open=$char ;;
        "''" | '""')
            open='' ;;
        \\ | '"\')
            i+=1
            text+=${word:i:1}
            ;;
        *)
            text+=$char ;;
        esac
    done
}

# Sets quoted to a text as it has to stand on a command line, within an open quote or outside.
_quarryctl_quote() {
    local char special=$' \t"\'\\$`&;|<>(){}[]*?!#~:='
    local -i i
    quoted=''
    [[ $2 == \" ]] && special='"\$`'
    [[ $2 == \' ]] && special=\'
    for ((i = 0; i < ${#1}; i++)); do
        char=${1:i:1}
        if [[ $special != *"$char"* ]]; then
            quoted+=$char
        elif [[ $2 == \' ]]; then
            quoted+=\'\\\'\'
        else
            quoted+=\\$char
        fi
    done
}

# Offers those words that begin like the one that is being typed.
_quarryctl_offer() {
    local candidate quoted
    for candidate; do
        [[ $candidate == "$text"* ]] || continue
        _quarryctl_quote "$candidate" "$open"
        COMPREPLY+=("$quoted")
    done
}

# Offers the devices that a verb can do something with, by name or path and by label. None when there
# is no daemon, or one that is busy.
_quarryctl_offer_devices() {
    local verb=$1 name drive type label raid place mountpoint _
    local -a names=() labels=()
    local -A has_partitions=()
    local -i i
    while IFS=$'\t' read -r name drive type _ label _ _ place raid _ mountpoint; do
        has_partitions[$drive]=1
        case $verb in
        mount) [[ $raid == - && $place != Boot ]] || continue ;;
        remount | umount) [[ $mountpoint != - && $place != Boot ]] || continue ;;
        eject | retract) [[ $type == CD-ROM ]] || continue ;;
        esac
        names+=("$name")
        labels+=("$label")
    done < <(quarryctl --timeout 1 list --plain 2>/dev/null)
    for ((i = 0; i < ${#names[@]}; i++)); do
        [[ $verb == mount && -n ${has_partitions[${names[i]}]-} ]] && continue
        if [[ $text == /* ]]; then
            _quarryctl_offer "/dev/${names[i]}"
            continue
        fi
        _quarryctl_offer "${names[i]}"
        # "-" stands for none. A backslash is doubled there; a single one begins the number of a
        # character that no keyboard has.
        label=${labels[i]//\\\\/$'\001'}
        [[ $label == - || $label == *\\* ]] || _quarryctl_offer "^${label//$'\001'/\\}"
    done
}

_quarryctl() {
    local verb='' previous=${COMP_WORDS[COMP_CWORD - 1]} word text open
    local -i i arguments=0
    COMPREPLY=()
    _quarryctl_unquote "${COMP_WORDS[COMP_CWORD]}"
    [[ $text == = ]] && text='' # "--timeout=" is cut before the sign
    # What takes a number has nothing to offer.
    [[ $previous == = ]] && previous=${COMP_WORDS[COMP_CWORD - 2]}
    [[ $previous == --timeout || $previous == --interval ]] && return
    if [[ $previous == --root ]]; then
        compopt -o filenames
        mapfile -t COMPREPLY < <(compgen -d -- "$text")
        return
    fi

    for ((i = 1; i < COMP_CWORD; i++)); do
        word=${COMP_WORDS[i]}
        case $word in
        --timeout | --interval | --root)
            [[ ${COMP_WORDS[i + 1]} == = ]] && i+=1
            i+=1
            ;;
        -*) ;;
        *)
            if [[ -z $verb ]]; then verb=$word; else arguments+=1; fi
            ;;
        esac
    done

    if [[ $text == -* ]]; then
        _quarryctl_offer --help --timeout
        case $verb in
        '') _quarryctl_offer --version ;;
        list | enumerate | busy) _quarryctl_offer --plain --json ;;
        check) _quarryctl_offer --plain --json --root ;;
        watch) _quarryctl_offer --interval ;;
        remount | umount) _quarryctl_offer --force ;;
        esac
        return
    fi

    case $verb:$arguments in
    :*)
        _quarryctl_offer list enumerate watch mount remount umount busy check eject retract \
            swapon swapoff refresh hotplug polling notify help raw
        ;;
    mount:0 | remount:0)
        _quarryctl_offer ro rw
        ;;
    mount:1 | remount:1 | umount:0 | busy:0 | eject:0 | retract:0)
        _quarryctl_offer_devices "$verb"
        ;;
    notify:0)
        _quarryctl_offer add remove
        ;;
    raw:0)
        _quarryctl_offer list enumerate swapoff swapon eject retract refresh mount umount notify \
            hotplug polling help
        ;;
    esac
}

complete -F _quarryctl quarryctl
