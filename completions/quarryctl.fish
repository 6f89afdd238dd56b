# Completion of quarryctl's verbs, options, devices and labels, for fish.

# The words so far that are no options, behind the program's name.
function __quarryctl_words
    set -l skip 0
    for word in (commandline -opc)[2..]
        if test $skip = 1
            set skip 0
        else if contains -- $word --timeout --interval --root
            set skip 1
        else if not string match -q -- '-*' $word
            echo $word
        end
    end
end

# Whether the verb is one of those given, and so many words have followed it.
function __quarryctl_at
    set -l words (__quarryctl_words)
    test (count $words) -eq (math $argv[1] + 1); and contains -- $words[1] $argv[2..]
end

function __quarryctl_verb_is
    set -l words (__quarryctl_words)
    set -q words[1]; and contains -- $words[1] $argv
end

# The devices that the verb can do something with, by name or path and by label. None when there is
# no daemon, or one that is busy.
function __quarryctl_devices
    set -l verb (__quarryctl_words)[1]
    set -l rows (quarryctl --timeout 1 list --plain 2>/dev/null)
    set -l with_partitions (string split -f 2 \t -- $rows)
    for row in $rows
        set -l fields (string split \t -- $row)
        switch $verb
            case mount
                test "$fields[9]" = -; and test "$fields[8]" != Boot; or continue
                contains -- $fields[1] $with_partitions; and continue
            case remount umount
                test "$fields[11]" != -; and test "$fields[8]" != Boot; or continue
            case eject retract
                test "$fields[3]" = CD-ROM; or continue
        end
        if string match -q -- '/*' (commandline -ct)
            printf '%s\t%s\n' /dev/$fields[1] $fields[3]
            continue
        end
        printf '%s\t%s\n' $fields[1] $fields[3]
        # "-" stands for none. A backslash is doubled there; a single one begins the number of a
        # character that no keyboard has.
        set -l label (string replace -a -- '\\\\' \x01 $fields[5])
        if test "$label" != -; and not string match -qr -- '\\\\' $label
            printf '%s\t%s\n' ^(string replace -a -- \x01 '\\' $label) $fields[1]
        end
    end
end

complete -c quarryctl -f
complete -c quarryctl -s h -l help -d 'Print help'
complete -c quarryctl -l timeout -x -d 'How long to wait for an answer, in seconds'

set -l no_verb 'test (count (__quarryctl_words)) -eq 0'
complete -c quarryctl -n $no_verb -l version -d 'Print the version'
complete -c quarryctl -n $no_verb -a list -d 'List all drives and their partitions'
complete -c quarryctl -n $no_verb -a enumerate -d 'List drives by how they are connected'
complete -c quarryctl -n $no_verb -a watch -d 'Show the list and what changes in it'
complete -c quarryctl -n $no_verb -a mount -d 'Mount a device below /mnt and print where'
complete -c quarryctl -n $no_verb -a remount -d 'Make a mounted device read-only or writable'
complete -c quarryctl -n $no_verb -a umount -d 'Unmount a device'
complete -c quarryctl -n $no_verb -a busy -d 'Show who holds a device, and whom that would cost'
complete -c quarryctl -n $no_verb -a check -d 'Look for mistakes in the installation'
complete -c quarryctl -n $no_verb -a eject -d 'Open the tray of an optical drive'
complete -c quarryctl -n $no_verb -a retract -d 'Close the tray of an optical drive'
complete -c quarryctl -n $no_verb -a swapon -d 'Switch the swap file on the main partition on'
complete -c quarryctl -n $no_verb -a swapoff -d 'Switch the swap file on the main partition off'
complete -c quarryctl -n $no_verb -a refresh -d 'Look for drives and partitions at once'
complete -c quarryctl -n $no_verb -a hotplug -d 'Follow drives by the events of the kernel'
complete -c quarryctl -n $no_verb -a polling -d 'Follow drives by looking every second'
complete -c quarryctl -n $no_verb -a notify -d 'Pass an event of the kernel on, in hotplug mode'
complete -c quarryctl -n $no_verb -a help -d 'Show what requests the daemon itself knows'
complete -c quarryctl -n $no_verb -a raw -d 'Send a request as it is'

complete -c quarryctl -n '__quarryctl_verb_is list enumerate busy check' -l plain -d 'For scripts'
complete -c quarryctl -n '__quarryctl_verb_is list enumerate busy check' -l json -d 'For programs'
complete -c quarryctl -n '__quarryctl_verb_is check' -l root -x -a '(__fish_complete_directories)' \
    -d 'Of an installation below this folder'
complete -c quarryctl -n '__quarryctl_verb_is watch' -l interval -x -d 'How often to look, in seconds'
complete -c quarryctl -n '__quarryctl_verb_is umount' -l force \
    -d 'End the processes that use it first'
complete -c quarryctl -n '__quarryctl_verb_is remount' -l force \
    -d 'With ro: end the processes that write to it'

complete -c quarryctl -n '__quarryctl_at 0 mount remount' -a ro -d 'To read'
complete -c quarryctl -n '__quarryctl_at 0 mount remount' -a rw -d 'To write, too'
complete -c quarryctl -n '__quarryctl_at 1 mount remount' -a '(__quarryctl_devices)'
complete -c quarryctl -n '__quarryctl_at 0 umount busy eject retract' -a '(__quarryctl_devices)'
complete -c quarryctl -n '__quarryctl_at 0 notify' -a 'add remove'
complete -c quarryctl -n '__quarryctl_at 0 raw' \
    -a 'list enumerate swapoff swapon eject retract refresh mount umount notify hotplug polling help'
