# Fills the first two spare members of every generated message descriptor: the length of the package name and the length of the message's
# name in the schema ("s_policy_kelim.flow_key": 14 and 8). A descriptor's initialiser begins with the magic number, the full name, the
# CamelCase name, the C name and the package name, and ends with the three spare members. Fails when a descriptor does not look like that.

/^const ProtobufCMessageDescriptor / { in_message = 1; strings = 0 }

in_message && /^  "/ {
  strings++
  text = $0
  sub(/^  "/, "", text)
  sub(/",?$/, "", text)
  if (strings == 1) full = text
  if (strings == 4) package = text
}

in_message && /NULL,NULL,NULL/ {
  if (strings != 4 || index(full, package ".") != 1) {
    print "annotate_descriptors.awk: cannot read the descriptor of \"" full "\"" > "/dev/stderr"
    exit 1
  }
  sub(/NULL,NULL,NULL/, "(void *) " length(package) ",(void *) " length(full) - length(package) - 1 ",NULL")
  in_message = 0
  annotated++
}

{ print }

END { if (!annotated) { print "annotate_descriptors.awk: no message descriptor found" > "/dev/stderr"; exit 1 } }
