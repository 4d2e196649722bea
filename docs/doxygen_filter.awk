# Lets Doxygen read the public headers, whose comments are plain ones: the first comment describes
# the file, a comment belongs to every declaration below it up to the next empty line, and one after
# a field or an enumerator to that. Text is shown as it stands, whatever Doxygen could read into it;
# parameters and a paragraph with an indented line keep their lines. Doxygen warns of an exported name
# without a comment, because it does not know the command put there.

# Doxygen itself takes what is in double quotes as it stands.
function plain(text,    part, parts, i)
{
    parts = split(text, part, "\"")
    text = ""
    for (i = 1; i <= parts; ++i) {
        if (i % 2 == 1 || i == parts) {
            gsub(/[\\@#%<>&$]/, "\\\\&", part[i])
            gsub(/::/, "\\::", part[i])
        }
        text = text (i > 1 ? "\"" : "") part[i]
    }
    return text
}

# The comment of n lines as Doxygen's.
function documentation(first,    i, j, k, shown, text)
{
    text = "/**" first
    for (i = 1; i <= n; i = k + 1) {
        shown = 0
        for (k = i; k <= n && comment[k] != ""; ++k)
            if (comment[k] ~ /^  / || (k == i && comment[k] ~ /^[a-z_]+: /))
                shown = 1
        if (shown)
            text = text "\n * @verbatim"
        for (j = i; j < k; ++j)
            text = text "\n" (shown ? comment[j] : " * " plain(comment[j]))
        text = text (shown ? "\n@endverbatim" : "") "\n *"
    }
    return text "\n */"
}

function end_comment()
{
    in_comment = 0
    if (!described) {
        described = 1
        print documentation(" @file")
        n = 0
        return
    }
    fresh = 1
}

in_comment {
    ends = / ?\*\/$/
    sub(/ ?\*\/$/, "")
    sub(/^ \* ?/, "")
    if (!ends || $0 != "")
        comment[++n] = $0
    if (ends)
        end_comment()
    next
}
/^\/\*[-*]/ { next }
/^\/\*/ {
    n = 0
    in_comment = 1
    if (/\*\/$/) {
        gsub(/^\/\* | \*\/$/, "")
        comment[++n] = $0
        end_comment()
        next
    }
    sub(/^\/\* ?/, "")
    if ($0 != "")
        comment[++n] = $0
    next
}
# What stands alone is about the file.
/^$/ && fresh { print documentation(" @file") }
/^$/ { pending = fresh = 0 }
{
    # Also before each further declaration of the paragraph.
    if (fresh)
        pending = 1
    if (fresh || (pending && complete && /^[A-Za-z]/))
        print documentation("")
    else if (!pending && /DEVICE_ACCESS_API / && !/^#/)
        print "/** \\undocumented_function */"
    fresh = 0
    complete = /[;}]$/
    if (match($0, /\/\* .* \*\/$/)) {
        text = substr($0, RSTART + 3, RLENGTH - 6)
        $0 = substr($0, 1, RSTART - 1) "/**< " plain(text) " */"
        complete = 0
    }
    print
}
