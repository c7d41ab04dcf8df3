#!/usr/bin/env bash
# Checks the README and doc/*.md: every relative link names a file of the project, and every
# command in a shell code block that runs one of the project's scripts or programs names one that
# exists (scripts in the source tree, programs in this build).
set -uo pipefail
src=$1
bin=$2
failures=0
fail() {
    echo "$1:$2: $3"
    failures=$((failures + 1))
}

# The programs the project builds and installs: vrec, and the tools' list.
programs=" vrec $(sed -n 's/^set(VREC_TOOL_PROGRAMS \([^)]*\))/\1/p' "$src/tools/CMakeLists.txt" |
    sed 's/PARENT_SCOPE//') vrec-stallfs "

check_word() {  # FILE LINE WORD DIR: WORD as the command of a code line in FILE
    local file=$1 line=$2 word=$3 dir=$4
    case "$word" in
    scripts/* | */scripts/*)
        [ -x "$src/scripts/${word##*scripts/}" ] || fail "$file" "$line" "no script $word" ;;
    build/* | */build/*)
        local rel=${word##*build/}
        [ -x "$bin/$rel" ] || fail "$file" "$line" "no program $rel in the build" ;;
    vrec | vrec-*)
        [[ "$programs" == *" $word "* ]] || fail "$file" "$line" "$word is no program of the project" ;;
    esac
}

link='\]\(([^)#]+)(#[^)]*)?\)'
for doc in "$src/README.md" "$src"/doc/*.md; do
    [ -f "$doc" ] || continue
    name=${doc#"$src/"}
    dir=$(dirname "$doc")
    n=0
    inblock=0
    while IFS= read -r text; do
        n=$((n + 1))
        # Only shell blocks hold commands; the others show output or usage.
        if [[ "$text" == '```'* ]]; then
            if [ $inblock -ne 0 ]; then
                inblock=0
            elif [[ "$text" =~ ^\`\`\`(sh|bash|shell)$ ]]; then
                inblock=1
            else
                inblock=2
            fi
            continue
        fi
        [ $inblock -eq 2 ] && continue
        if [ $inblock -eq 1 ]; then
            # A command line: its first word, and the word after each pipe or &&.
            code=${text%%#*}
            code=${code//&&/|}
            IFS='|' read -ra parts <<<"$code"
            for part in "${parts[@]}"; do
                read -r first _ <<<"$part"
                [ -n "${first:-}" ] && check_word "$name" $n "$first" "$dir"
            done
            continue
        fi
        # Markdown links to files of the project: [text](path) with no scheme.
        rest=$text
        while [[ "$rest" =~ $link ]]; do
            target=${BASH_REMATCH[1]}
            rest=${rest#*"${BASH_REMATCH[0]}"}
            case "$target" in http:* | https:* | mailto:*) continue ;; esac
            [ -e "$dir/$target" ] || fail "$name" $n "link to $target, which does not exist"
        done
    done <"$doc"
done

if [ $failures -gt 0 ]; then
    echo "$failures reference(s) point at nothing"
    exit 1
fi
echo "every link and command of the README and doc/ points at something that exists"
