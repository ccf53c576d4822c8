# Makes text for Notepad of our Markdown: 78 columns, tables as aligned columns where they fit and as entries
# where not. -v here=NAME.txt names the text made; -v section="## TITLE" takes only that section of the file.

function flush_paragraph() {
  if (paragraph != "") print_wrapped(plain(paragraph), first_indent, next_indent)
  paragraph = first_indent = next_indent = ""
}

function print_wrapped(text, first, rest,    words, count, i, line, indent) {
  count = split(text, words, /[ \t]+/)
  line = indent = first
  for (i = 1; i <= count; ++i) {
    if (length(line) > length(indent) && length(line) + 1 + length(words[i]) > 78) {
      print line
      line = indent = rest
    }
    line = line (length(line) > length(indent) ? " " : "") words[i]
  }
  print line
}

# Without the marks; links by the names that the documents have in the zip.
function plain(text,    shown, target) {
  while (match(text, /\[[^]]*\]\([^)]*\)/)) {
    shown = target = substr(text, RSTART, RLENGTH)
    sub(/^\[/, "", shown)
    sub(/\].*/, "", shown)
    sub(/^[^]]*\]\(/, "", target)
    sub(/\)$/, "", target)
    sub(/#.*/, "", target)
    if (target !~ /\.md$/) target = ""
    sub(/.*\//, "", target)
    sub(/\.md$/, "", target)
    target = toupper(target) (target == "" ? "" : ".txt")
    if (shown ~ /\.md$/) shown = target
    else if (target != "" && target != here) shown = shown " (" target ")"
    text = substr(text, 1, RSTART - 1) shown substr(text, RSTART + RLENGTH)
  }
  gsub(/\*\*/, "", text)
  while (match(text, /`[^`]*`/)) {
    shown = substr(text, RSTART + 1, RLENGTH - 2)
    if (shown ~ / |^[a-z]+$/ && shown !~ /"/) shown = "\"" shown "\""
    text = substr(text, 1, RSTART - 1) shown substr(text, RSTART + RLENGTH)
  }
  return text
}

function add_row(line,    cells, count, i) {
  gsub(/\\\|/, "\002", line)
  sub(/^\| */, "", line)
  sub(/ *\| *$/, "", line)
  if (line ~ /^[-| ]+$/) return
  ++rows
  columns = split(line, cells, / *\| */)
  for (i = 1; i <= columns; ++i) {
    gsub(/\002/, "|", cells[i])
    if (cells[i] ~ /^`[^`]*`(, `[^`]*`)*$/) gsub(/`/, "", cells[i])
    else cells[i] = plain(cells[i])
    cell[rows, i] = cells[i]
    if (length(cell[rows, i]) > width[i]) width[i] = length(cell[rows, i])
  }
}

function flush_table(    total, i, row, line) {
  if (rows == 0) return
  for (i = 1; i <= columns; ++i) total += width[i] + 2
  # The last column may be wrapped where enough is left for it.
  if (total - width[columns] <= 54 || total <= 80) {
    for (row = 1; row <= rows; ++row) {
      line = "  "
      for (i = 1; i < columns; ++i) line = line sprintf("%-" (width[i] + 2) "s", cell[row, i])
      print_wrapped(cell[row, columns], line, sprintf("%" length(line) "s", ""))
      if (row == 1) {
        gsub(/./, "-", line)
        print "  " substr(line line line line, 1, 76)
      }
    }
  } else {
    for (row = 2; row <= rows; ++row) {
      print_wrapped(cell[row, 1], "  ", "    ")
      for (i = 2; i <= columns; ++i) {
        if (cell[row, i] == "") continue
        print_wrapped((columns > 2 ? cell[1, i] ": " : "") cell[row, i], "      ", "      ")
      }
      if (row < rows) print ""
    }
  }
  rows = columns = 0
  delete width
}

function flush() {
  flush_paragraph()
  flush_table()
}

section != "" && /^#/ { wanted = $0 == section }
section != "" && !wanted { next }
/^!\[/ { skipping = 1 }
skipping { if (/\)$/) skipping = 0; next }
/^#/ {
  flush()
  level = index($0, " ") - 1
  sub(/^#+ /, "")
  title = plain($0)
  print title
  gsub(/./, level == 1 ? "=" : level == 2 ? "-" : ".", title)
  print title
  next
}
/^    / && first_indent == "" && paragraph == "" { flush(); print; next }
/^ *$/ { flush(); print ""; next }
/^\|/ { flush_paragraph(); add_row($0); next }
/^( *)([-*]|[0-9]+\.) / {
  flush()
  match($0, /^ *([-*]|[0-9]+\.) /)
  first_indent = substr($0, 1, RLENGTH)
  next_indent = sprintf("%" RLENGTH "s", "")
  paragraph = substr($0, RLENGTH + 1)
  next
}
{ sub(/^ +/, ""); paragraph = paragraph (paragraph == "" ? "" : " ") $0 }
END { flush() }
