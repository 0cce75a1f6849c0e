# fish completion for propctl

# The options that say which device is meant.
function __propctl_connection
    set -l option
    for token in (commandline -opc | string replace -r '^~/' "$HOME/")
        if test -n "$option"
            printf '%s\n' $option $token
            set option
        else if string match -qr '^--(host|port|user|password-file|name|cafile|cert|key|device)$' -- $token
            set option $token
        else if string match -qr '^--(host|port|user|password-file|name|cafile|cert|key|device)=' -- $token
            printf '%s\n' $token
        end
    end
end

# Whether the line has one of these words. The function that fish 4.0 has for it takes a "set" for a "reset", too.
function __propctl_seen
    for token in (commandline -opc)
        contains -- $token $argv
        and return
    end
    return 1
end

# Asks that device, and gives up early.
function __propctl_keys
    propctl (__propctl_connection) --timeout 1 complete-keys -- (commandline -ct) 2>/dev/null
end

function __propctl_assignments
    __propctl_keys | string replace -r '$' '='
end

function __propctl_groups
    __propctl_keys | string replace -r '\..*' '' | sort -u
    string match -q '*.*' -- (commandline -ct); and __propctl_keys
end

set -l commands get set reset list describe watch dump load backup restore sysdump prepare ping check devices
set -l none "not __propctl_seen $commands"

complete -c propctl -f
complete -c propctl -n $none -a get -d 'Read values'
complete -c propctl -n $none -a set -d 'Write values'
complete -c propctl -n $none -a reset -d 'Take properties to their defaults'
complete -c propctl -n $none -a list -d 'A table of properties'
complete -c propctl -n $none -a describe -d 'Everything about one property'
complete -c propctl -n $none -a watch -d 'Print changes as they come'
complete -c propctl -n $none -a dump -d 'All values by provisioning name'
complete -c propctl -n $none -a load -d 'Write what dump has printed'
complete -c propctl -n $none -a backup -d "Save the user's settings on the device"
complete -c propctl -n $none -a restore -d 'Read the saved settings back'
complete -c propctl -n $none -a sysdump -d 'Write what support wants to see'
complete -c propctl -n $none -a prepare -d 'Save what is to survive'
complete -c propctl -n $none -a ping -d 'Is it alive, and how far away?'
complete -c propctl -n $none -a check -d "Look for mistakes in a device's files"
complete -c propctl -n $none -a devices -d 'The devices of a central broker, and who is there'

complete -c propctl -l host -x -a '(__fish_print_hostnames)' -d Broker
complete -c propctl -l port -x -d 'Its port'
complete -c propctl -l user -x -d 'User name'
complete -c propctl -l password-file -rF -d 'File with user and password'
complete -c propctl -l name -x -d 'Sender of the requests'
complete -c propctl -l cafile -rF -d 'Authorities to trust'
complete -c propctl -l cert -rF -d 'Certificate of the client'
complete -c propctl -l key -rF -d 'Its key'
complete -c propctl -l device -x -d 'Serial number behind a central broker'
complete -c propctl -l jobs -x -d 'So many devices at once'
complete -c propctl -l timeout -x -d 'Seconds for each answer'
complete -c propctl -l json -d 'Print JSON'
complete -c propctl -s q -l quiet -d 'No remarks'
complete -c propctl -l show-secrets -d 'Passwords and PINs on a terminal, too'
complete -c propctl -l version -d 'Print the version'
complete -c propctl -s h -l help -d 'Print help'

complete -c propctl -n '__propctl_seen get list describe reset' -a '(__propctl_keys)'
complete -c propctl -n '__propctl_seen set' -a '(__propctl_assignments)'
complete -c propctl -n '__propctl_seen watch' -a '(__propctl_groups)'
complete -c propctl -n '__propctl_seen prepare' -a 'version-change factory-reset'
complete -c propctl -n '__propctl_seen load check' -F
complete -c propctl -n '__propctl_seen get set describe load' -l by -x -a 'key web provisioning' -d 'What names are'
complete -c propctl -n '__propctl_seen list' -l columns -x -d 'Columns, separated by commas'
complete -c propctl -n '__propctl_seen list' -l changed -d 'Only what differs from its default'
complete -c propctl -n '__propctl_seen watch' -l allow-unknown -d 'Also names that stand for nothing yet'
complete -c propctl -n '__propctl_seen watch' -l no-old -d 'Leave out the value before'
complete -c propctl -n '__propctl_seen watch ping' -l count -x -d 'So many'
complete -c propctl -n '__propctl_seen load' -l dry-run -d 'Write nothing'
complete -c propctl -n '__propctl_seen backup' -l all -d 'All settings'
