# Completion of tarnctl(1) for bash.

_tarnctl() {
    local current=${COMP_WORDS[COMP_CWORD]} previous=${COMP_WORDS[COMP_CWORD - 1]}
    local command='' word
    for word in "${COMP_WORDS[@]:1:COMP_CWORD-1}"; do
        case $word in
            crm | messages | packetlog | replay | secmgr)
                command=$word
                break
                ;;
        esac
    done

    COMPREPLY=()
    case $previous in
        --channel | --count | --timeout | --loop | --wait | --linktype | --ring | --drop | --fail-first | --never | --max-rules) return ;;
        --dir)
            compopt -o filenames
            mapfile -t COMPREPLY < <(compgen -d -- "$current")
            return
            ;;
        --rate)
            mapfile -t COMPREPLY < <(compgen -W 'max' -- "$current")
            return
            ;;
        --answer)
            mapfile -t COMPREPLY < <(compgen -W 'close silent short long 3 15' -- "$current")
            return
            ;;
        --fifo | --never-file)
            compopt -o filenames
            mapfile -t COMPREPLY < <(compgen -f -- "$current")
            return
            ;;
    esac

    case $command in
        crm)
            mapfile -t COMPREPLY < <(
                compgen -W '--channel --json --count --timeout --fresh --help' -- "$current"
            )
            ;;
        messages)
            mapfile -t COMPREPLY < <(
                compgen -W '--json --count --timeout --help' -- "$current"
            )
            ;;
        packetlog)
            mapfile -t COMPREPLY < <(
                compgen -W '--dir --json --linktype --ring --drop --stop-reading --count --timeout --help' \
                    -- "$current"
            )
            ;;
        replay)
            if [[ $current == -* ]]; then
                mapfile -t COMPREPLY < <(
                    compgen -W '--rate --loop --fifo --wait --json --help' -- "$current"
                )
            else
                compopt -o filenames
                mapfile -t COMPREPLY < <(compgen -f -- "$current")
            fi
            ;;
        secmgr)
            mapfile -t COMPREPLY < <(
                compgen -W '--json --count --timeout --answer --fail-first --nft --flush --never --never-file --max-rules --help' \
                    -- "$current"
            )
            ;;
        *) mapfile -t COMPREPLY < <(compgen -W 'crm messages packetlog replay secmgr --help --version' -- "$current") ;;
    esac
}

complete -F _tarnctl tarnctl
