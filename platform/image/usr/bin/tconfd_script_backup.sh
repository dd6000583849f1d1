#!/bin/bash
# Saves the running configuration, as the daemon of the configuration asks for it:
#
#     tconfd_script_backup.sh -operation save -user NAME path FILE [external-vpn VPN] [-ssh-id-file KEY]
#
# FILE is made anew and whole, for its owner alone, in the form that "cli --commit FILE" takes. This device's image has
# no way to other devices: a FILE on one of them, USER@HOST:FILE or a URL, is refused. Says nothing when all is well.
set -u

fail()
{
    echo "${0##*/}: $*" >&2
    exit 1
}

operation= user= file=
while [ $# != 0 ]; do
    [ $# -ge 2 ] || fail "$1 lacks its value"
    case $1 in
        -operation) operation=$2 ;;
        -user) user=$2 ;;
        path) file=$2 ;;
        external-vpn | -ssh-id-file) ;; # for other devices only
        *) fail "unknown word $1" ;;
    esac
    shift 2
done

[ "$operation" = save ] || fail "operation '$operation' is not known; 'save' is"
[ -n "$user" ] || fail "no -user"
[ -n "$file" ] || fail "no path"
[[ ${file%%/*} != *:* ]] || fail "$file: this device cannot reach other devices"
[ -d "$(dirname -- "$file")" ] || fail "$file: no such folder"

umask 077
new=$file.new.$$ # two copies may have the same second in their names
trap 'rm -f -- "$new"' EXIT
cli --user "$user" --command 'show configuration | display set' >"$new" 2>/dev/null </dev/null ||
    fail "$file: the configuration cannot be read or written"
mv -f -- "$new" "$file" || fail "$file: not written"
