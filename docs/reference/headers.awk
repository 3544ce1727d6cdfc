# Turns the comments of our headers, which are written for who reads them as they stand, into what Doxygen takes.
# - Headings (/* ---- title ---- */) become groups, and a plain comment behind one the group's description.
# - A file's first comment becomes its description; that of kelRt.h the first page, too.
# - A comment stands for all declarations up to the next blank line: it is repeated for each of them.
# What is left without a comment, Doxygen complains of.

function say(line) {
    gsub(/`[^`]+`/, "<code>&</code>", line)
    gsub(/`/, "", line)
    print line
}

FNR == 1 && /^\/\*$/ {
    main = FILENAME ~ /kelRt\.h$/
    print main ? "/** @mainpage libkelRt" : "/** @file"
    plain = 1
    next
}

/^#define KEL_RT(_PLATFORM)?_(API|H)( |$)/ { next }

/^\/\* -+ / {
    title = $0
    gsub(/^\/\* -+ | *-* \*\/$| *-+$/, "", title)
    sub(/\. .*/, "", title)
    id = title
    gsub(/[^A-Za-z0-9]+/, "_", id)
    if (group)
        print "/** @} */"
    group = 1
    if ($0 !~ /\*\/$/)
        getline  # the comment's end
    pending = "/** @defgroup " id " " toupper(substr(title, 1, 1)) substr(title, 2)
    next
}
pending && /^\/\*/ && !/^\/\*\*/ {
    print pending
    sub(/^\/\*/, " *")
    plain = 1
    pending = ""
    in_group = 1
}
pending && !/^$/ {
    print pending " */ /** @{ */"
    pending = ""
}
plain {
    say($0)
    if (/\*\//) {
        if (in_group)
            print "/** @{ */"
        else if (main)
            print "/** @file kelRt.h Everything that libkelRt exports. */"
        plain = in_group = 0
    }
    next
}

/^\/\*\*/ {
    doc = ""
    commenting = 1
}
commenting {
    doc = doc $0 "\n"
    say($0)
    if (/\*\//) {
        commenting = 0
        fresh = 1
    }
    next
}
/^$/ && !fresh { doc = "" }
/^(KEL_RT_API|KEL_RT_PLATFORM_API|extern|typedef [^{]*;|#define )/ {
    if (!fresh && doc)
        say(doc)
    fresh = 0
}
/^extern .*,/ {  # several in one declaration
    count = split(substr($0, 1, length($0) - 1), names, ", ")
    print names[1] ";"
    sub(/[^ ]*$/, "", names[1])
    for (i = 2; i <= count; ++i)
        say(doc names[1] names[i] ";")
    next
}
/^(typedef struct|struct|enum)/ { fresh = 0 }
/^#ifdef __cplusplus$/ && group && FNR > 50 {
    print "/** @} */"
    group = 0
}
{ say($0) }
