# Doxygen input filter: reads a public header and writes it with its `//` contract comments
# turned into documentation comments, so that the headers stay in plain `//` style.
#   - a comment at the top of the file documents the file;
#   - a comment on lines of its own documents the declaration that follows;
#   - a comment after a member, enumerator or parameter (`int a;  // text`) documents that one,
#     and so do comment lines below it that start in the same column.
# Comments after anything else (`}  // namespace`, `#include ...  // why`) stay plain.
NR == 1 && /^\/\/ / { $0 = $0 " @file" }
/^[ \t]*\/\// {
  continued = index($0, "//") == trailing_column
  sub(/\/\//, continued ? "///<" : "///")
  if (!continued) trailing_column = 0
  print
  next
}
match($0, /[;,][ \t]+\/\/ /) {
  trailing_column = RSTART + RLENGTH - 3
  $0 = substr($0, 1, trailing_column - 1) "///<" substr($0, trailing_column + 2)
  print
  next
}
{ trailing_column = 0; print }
