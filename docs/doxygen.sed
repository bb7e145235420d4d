# What Doxygen reads instead of a source; lines keep their numbers.

# A functor's comment stands on its structure: its call points there.
s|^    (int\|void) operator\(\)\(|/** What the structure tells. */ &|
# Nor are these names of their own; Doxygen takes them for undocumented ones.
s/^extern template .*|^    using Data::AddData;//
# The README's headings get the anchors that links name them by.
/^## /{
  h
  s/^## //
  s/.*/\L&/
  s/[^a-z0-9]+/-/g
  H
  x
  s/\n(.*)/ {#\1}/
}
