# The functions that manual pages (mdoc) promise in their SYNOPSIS, in the form of
# declarations.awk. With -v names=1 the names in their NAME sections instead, with -v examples=1
# the code in their EXAMPLES sections, with -v parameters=1 the parameters that one page promises
# and no item of a list describes.

FNR == 1 { section = ""; header = ""; literal = 0 }
/^\.Sh / { section = substr($0, 5) }

names && section == "NAME" && /^\.Nm / { print $2 }

examples && section == "EXAMPLES" {
    if (/^\.Ed/)
        literal = 0
    if (literal) {
        gsub(/\\e/, "\\")
        sub(/^\\&/, "")
        print
    }
    if (/^\.Bd -literal/)
        literal = 1
}

parameters && section != "SYNOPSIS" && /^\.It Fa / { described = described " " $0 }

names || examples || section != "SYNOPSIS" { next }
/^\.In / { header = $2 }
/^\.Ft / { type = unquoted(substr($0, 5)) }
/^\.Fn / {
    begin($2)
    rest = $0
    while (match(rest, /"[^"]*"/)) {
        argument(substr(rest, RSTART + 1, RLENGTH - 2))
        rest = substr(rest, RSTART + RLENGTH)
    }
    finish()
}
/^\.Fo / { begin($2) }
/^\.Fa / { argument(unquoted(substr($0, 5))) }
/^\.Fc/ { finish() }

function begin(name)
{
    line = header " " type (type ~ /\*$/ ? "" : " ") name "("
    comma = ""
}
function argument(text)
{
    line = line comma text
    comma = ", "
    sub(/.*[ *]/, "", text)
    if (text != "void")
        promised[text]
}
function finish()
{
    if (!parameters)
        print line ")"
}
END {
    for (name in promised)
        if (parameters && (described " ") !~ ("[ *]" name "[ ,]"))
            print FILENAME ": does not say what " name " is"
}
function unquoted(text)
{
    gsub(/"/, "", text)
    return text
}
