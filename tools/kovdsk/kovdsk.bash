# bash completion for kovdsk(1): its commands, their options and the fixed
# words they take, directories for init and files where a command reads or
# writes one. It needs nothing of the bash-completion package.
# Keep in step with the commands in tools/kovdsk and with kovdsk.1.

_kovdsk()
{
    local cur=${COMP_WORDS[COMP_CWORD]} prev=${COMP_WORDS[COMP_CWORD - 1]}
    local cmd="" sub="" w i
    for ((i = 1; i < COMP_CWORD; i++)); do
        w=${COMP_WORDS[i]}
        [[ $w == -* ]] && continue
        if [[ -z $cmd ]]; then
            cmd=$w
        elif [[ -z $sub && $cmd =~ ^(name|recover|drive)$ ]]; then
            sub=$w
        fi
    done

    case $prev in
    -a | --area)
        compopt -o nospace 2>/dev/null
        COMPREPLY=($(compgen -W "general uid: usr:" -- "$cur"))
        return ;;
    -i | --input | -o | --output)
        COMPREPLY=($(compgen -f -- "$cur"))
        return ;;
    --sort)
        COMPREPLY=($(compgen -W "name tag time" -- "$cur"))
        return ;;
    -k | --kind | -s | --short-tag | -l | --long-tag | -d | --deadline | -n | --name | \
        --count | --sizes | -b | --block-size | -c | --block-count)
        return ;;
    esac

    local words="" files=""
    case $cmd in
    "") words="init mkdirs status put get ls ids users passes where rm sweep trash name recover drive --version" ;;
    init) words="--mkdir" files=dirs ;;
    status) words="--json" ;;
    put) words="-k --kind -a --area -i --input -s --short-tag -l --long-tag -d --deadline -t --temporary" ;;
    get) words="-k --kind -a --area -o --output --partial" ;;
    ls) words="-a --area -n --name -k --kind --hide-expired --sweep --sort -H --human --json" ;;
    ids | users | passes) words="--live --sweep --json" ;;
    where) words="-k --kind -a --area" ;;
    rm) words="-k --kind -a --area --prefix --all -y --yes" ;;
    sweep) words="--expired --temporary" ;;
    trash) words="on off scan shred --all" ;;
    name)
        case $sub in
        "") words="encode decode" ;;
        encode) words="-k --kind -s --short-tag -l --long-tag -d --deadline -t --temporary" ;;
        decode) words="--json" ;;
        esac ;;
    recover)
        case $sub in
        "") words="lock slot table" ;;
        lock) words="table access" ;;
        slot) words="read write -y --yes" ;;
        esac ;;
    drive)
        case $sub in
        "") words="identify fdisk format check" ;;
        identify) words="--json" files=all ;;
        fdisk) words="-n --count -s --sizes -y --yes" files=all ;;
        format) words="-b --block-size -c --block-count -y --yes" files=all ;;
        check) files=all ;;
        esac ;;
    esac
    COMPREPLY=($(compgen -W "$words --help" -- "$cur"))
    if [[ $cur != -* ]]; then
        case $files in
        dirs) COMPREPLY+=($(compgen -d -- "$cur")) ;;
        all) COMPREPLY+=($(compgen -f -- "${cur:-/dev/}")) ;;
        esac
    fi
}
complete -F _kovdsk kovdsk
