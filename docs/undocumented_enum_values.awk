# Prints "<file>: <value>" for each value of a public enum that has no
# documentation of its own, read from Doxygen's XML output (Doxygen itself
# does not warn about them).
/<memberdef kind="enum"/ { inEnum = ($0 ~ /prot="public"/) }
/<\/memberdef>/ { inEnum = 0 }
inEnum && /<enumvalue / { inValue = 1; buf = "" }
inValue { buf = buf $0 "\n" }
inValue && /<\/enumvalue>/ {
    if (buf !~ /<para>/) {
        match(buf, /<name>[^<]*<\/name>/)
        print FILENAME ": " substr(buf, RSTART + 6, RLENGTH - 13)
    }
    inValue = 0
}
