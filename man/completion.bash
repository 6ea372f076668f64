# Completes the commands and options of nat-peer, nat-relay-admin and nat-rendezvousd. It asks their --help, so that it
# knows what they know.
_nat_relay() {
    local program=$1 word=$2 before=$3 help
    case $before in
        --config | --out | --folder | --certificate | --key | backup | restore) mapfile -t COMPREPLY < <(compgen -f -- "$word"); return ;;
    esac
    help=$("$program" --help 2>/dev/null)
    if [[ $word == -* ]]; then
        mapfile -t COMPREPLY < <(compgen -W "$(grep -oE -- '--[a-z-]+' <<<"$help" | sort -u)" -- "$word")
    else # a command begins its line, indented or not, in the help of all three
        mapfile -t COMPREPLY < <(compgen -W "$(sed -nE 's/^ {0,2}([a-z]+(-[a-z]+)*)( .*)?$/\1/p' <<<"$help" | sort -u)" -- "$word")
    fi
}
complete -F _nat_relay nat-peer nat-relay-admin nat-rendezvousd
