# The functions that a public header declares, one on a line: "ldapx.h int f(LDAP *ld, char *dn)".
# Reads what the preprocessor made of it ("cc -E"); -v header=NAME is the header's file name. A
# function that is not marked for export is told apart by the word "hidden" before it.

# Line markers say which file the lines after them come from.
/^# [0-9]+ "/ {
    file = $3
    gsub(/"/, "", file)
    sub(/.*\//, "", file)
    next
}
file == header { text = text " " $0 }

END {
    depth = 0
    statement = ""
    count = split(text, bytes, "")
    for (i = 1; i <= count; ++i) {
        if (bytes[i] == "{")
            ++depth
        else if (bytes[i] == "}")
            --depth
        else if (depth == 0 && bytes[i] == ";") {
            declaration(statement)
            statement = ""
        } else if (depth == 0)
            statement = statement bytes[i]
    }
}

function declaration(statement)
{
    exported = sub(/__attribute__ *\(\(visibility\("default"\)\)\)/, "", statement)
    if (statement !~ /\(/)
        return
    gsub(/[ \t]+/, " ", statement)
    gsub(/^ | $/, "", statement)
    print (exported ? "" : "hidden ") header " " statement
}
