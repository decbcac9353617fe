# Completion of dmq's command line in bash. dmq itself is asked what may come next: commands, options, kinds, queries and
# the keys of objects in the store.
_dmq() {
    local line=${COMP_LINE:0:COMP_POINT} candidate words
    local quotes=${line//[^\"\']/}
    # Of an open quote readline would replace all: the candidate for its last word would take the others' place.
    ((${#quotes} % 2 == 0)) || return
    line=${line//[\"\']/}
    read -ra words <<< "$line"
    [[ $line != *[[:space:]] ]] || words+=('')
    # A candidate is a whole word; for readline a word begins anew behind = and :
    local before=${words[-1]%"${words[-1]##*[=:]}"}
    while IFS=$'\t' read -r candidate _; do
        COMPREPLY+=("${candidate#"$before"}")
    done < <("$1" complete "${words[@]:1}" < /dev/null 2> /dev/null)
    [[ ${COMPREPLY[0]-} != *[=/] ]] || compopt -o nospace
}
complete -o default -F _dmq dmq
