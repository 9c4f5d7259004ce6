# bash completion for znv

_znv() {
    local cur prev words cword
    _init_completion || return

    local commands="upload download status resume retry cancel finish info delete emulator demo"
    local global="--server --token --profile --json --offline -q --quiet -v --verbose --help --help-all --version"

    case $prev in
        --server | --token | --name | --port | --max-full-file | --size)
            return
            ;;
        --profile)
            local dir=$HOME/Library/Network profiles
            profiles=$(command ls "$dir" 2>/dev/null | sed -n 's/\.state$//p')
            COMPREPLY=($(compgen -W "$profiles" -- "$cur"))
            return
            ;;
        -o | --output | --data)
            _filedir
            return
            ;;
    esac

    local command="" word
    for word in "${words[@]:1:cword-1}"; do
        case $word in
            upload | download | status | resume | retry | cancel | finish | info | delete | emulator | demo)
                command=$word
                break
                ;;
        esac
    done

    case $command in
        "")
            if [[ $cur == -* ]]; then
                COMPREPLY=($(compgen -W "$global" -- "$cur"))
            else
                COMPREPLY=($(compgen -W "$commands" -- "$cur"))
            fi
            ;;
        upload)
            if [[ $cur == -* ]]; then
                COMPREPLY=($(compgen -W "--name --video --force-chunks --help" -- "$cur"))
            else
                _filedir
            fi
            ;;
        download)
            COMPREPLY=($(compgen -W "-o --output -f --force --help" -- "$cur"))
            ;;
        finish)
            COMPREPLY=($(compgen -W "--completed --help" -- "$cur"))
            ;;
        emulator)
            COMPREPLY=($(compgen -W "--port --data --token --max-full-file --help" -- "$cur"))
            ;;
        *)
            COMPREPLY=($(compgen -W "--help" -- "$cur"))
            ;;
    esac
} && complete -F _znv znv
