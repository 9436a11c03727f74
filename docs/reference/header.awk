# Doxygen input filter: the public header reads as plain text, this gives its habits their tags.
# One line stays one line, so that warnings name the header's own lines.
#
#   the opening comment               the main page
#   a comment between long rules      a page for its family, up to the next one
#   " * name  what it is"             a parameter, whose name is compared with the function's
#   "Returns ", "Thread-safety: "     sections
NR == 1 { sub(/^\/\* zorv_core: s/, "/** @file */ /** @mainpage S"); print; next }
/^\/\* -----------/ { print (families++ ? "/** @} */ /**" : "/**"); naming = 1; next }
naming { sub(/^ \* /, " * @defgroup family" families " "); naming = 0; print; next }
/^ \* -----------.* \*\/$/ { print " * @{ */"; next }
/^\/\*\*/ { described = 1 }
described {
    if ($0 ~ /^ \* [a-zA-Z_]+  +[^ ]/) sub(/^ \* /, " * @param ")
    sub(/^ \* Returns /, " * @return ")
    sub(/Thread-safety: /, "@threadsafety ")
}
/\*\/$/ { described = 0 }
{ print }
END { print "/** @} */" }
