# The parameters that a public header leaves undescribed: neither the comment before the function
# nor that of its section names them. (The session, ld, is described once for all.)

/^\/\*/ { comment = ""; inside = 1 }
inside {
    comment = comment " " $0
    if (/\*\//) {
        inside = 0
        if (comment ~ /^ \/\* ----/)
            section = comment
        else
            own = comment
    }
    next
}
/^LDAPX_API/ { declaration = "" ; declaring = 1 }
declaring {
    declaration = declaration " " $0
    if (/;/) {
        declaring = 0
        examine(declaration)
    }
    next
}
/^typedef|^#define/ { own = "" }

function examine(text,    name, list, count, i)
{
    sub(/^ LDAPX_API /, "", text)
    name = text
    sub(/\(.*/, "", name)
    sub(/.*[ *]/, "", name)
    sub(/^[^(]*\(/, "", text)
    sub(/\).*/, "", text)
    count = split(text, list, ",")
    for (i = 1; i <= count; ++i) {
        sub(/.*[ *]/, "", list[i])
        if (list[i] != "void" && list[i] != "ld" && !says(own, list[i]) && !says(section, list[i]))
            print FILENAME ": " name " does not say what " list[i] " is"
    }
    if (own == "")
        print FILENAME ": " name " has no comment"
}
function says(text, word)
{
    return (" " text " ") ~ ("[^A-Za-z0-9_]" word "[^A-Za-z0-9_]")
}
