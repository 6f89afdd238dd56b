# shellcheck shell=bash
# To be sourced. Both functions print names separated by NUL, from the current folder down.

# What the compilers read.
cpp_sources() {
    find . \( -name .git -o -path ./build \) -prune -o \
        -type f \( -name '*.cpp' -o -name '*.h' -o -name '*.c' \) -print0
}

# What a shell reads, by name or by the first line.
shell_scripts() {
    find . \( -name .git -o -path ./build \) -prune -o -type f -print0 |
        while IFS= read -r -d '' file; do
            IFS= read -r -n 64 first <"$file" || true
            case "$file:$first" in
            *.sh:* | *.bash:* | *:'#!'*/sh | *:'#!'*/sh\ * | *:'#!'*/bash | *:'#!'*/bash\ * | \
                *:'#!'*\ bash | *:'#!'*/openrc-run)
                printf '%s\0' "$file"
                ;;
            esac
        done
}
