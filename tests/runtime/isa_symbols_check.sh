#!/usr/bin/env bash
# No code compiled for one instruction set may run where another was chosen.
#
# An inline function, or a template instantiated with the same arguments, in
# two translation units is one weak (COMDAT) symbol: the linker keeps one of
# the copies, whichever it likes. If one copy was compiled with AVX-512 flags
# and the other without, a processor without AVX-512 may end up running the
# AVX-512 copy and die on an illegal instruction. So every weak function must
# be defined by objects of one instruction set only, and no strong function
# may have a weak double in another set's objects. Weak data (nm type V or u:
# vtables, type information, static locals) holds no instructions and may be
# shared.
#
# Nor may an object built with a set's flags run code at start-up (an
# .init_array or .ctors section): its dynamic initializers would run on every
# processor, before any set is chosen. The constructors that the sanitizers
# add to every instrumented object (.init_array.00099) are theirs, not ours.
#
# An object's instruction set is the suffix of its source file, the rule the
# top-level CMakeLists.txt applies its flags by: name_avx512.cpp.o (.obj on
# Windows) is built with that set's flags, an object with no listed suffix
# with none.
#
# Usage: isa_symbols_check.sh "SUFFIX..." ARCHIVE_OR_OBJECT...
#   e.g. isa_symbols_check.sh "avx2 avx512" libquorvel_runtime.a libquorvel_layers.a
# Prints every offender (symbols demangled) with the objects concerned, and
# exits 1 when there is one. NM and OBJDUMP name the target's tools in a
# cross build (for example aarch64-linux-gnu-nm).
set -euo pipefail

if [ $# -lt 2 ]; then
  echo "usage: $0 \"SUFFIX...\" ARCHIVE_OR_OBJECT..." >&2
  exit 2
fi
suffixes=$1
shift

# Lines "S object type name" from nm -A ("file:address type name", or
# "archive:member:address type name" for an archive member) and
# "H object section" from objdump -h.
listing() {
  "${NM:-nm}" -A --defined-only "$@" | awk '{ object = $1; sub(/:[0-9a-fA-F]*$/, "", object); print "S", object, $2, $3 }'
  "${OBJDUMP:-objdump}" -h "$@" | awk '
    / file format / { object = $1; sub(/:$/, "", object) }
    $1 ~ /^[0-9]+$/ && NF >= 7 { print "H", object, $2 }'
}

report=$(listing "$@" | awk -v suffixes="$suffixes" '
  BEGIN {
    n = split(suffixes, list, " ")
    for (i = 1; i <= n; ++i) {
      isa_of["_" list[i] ".cpp.o"] = list[i]
      isa_of["_" list[i] ".cpp.obj"] = list[i]
    }
  }
  function isa(object,    key) {
    for (key in isa_of) {
      if (substr(object, length(object) - length(key) + 1) == key) return isa_of[key]
    }
    return "plain"
  }
  { set = isa($2); present[set] = 1 }
  $1 == "S" && ($3 == "W" || $3 == "T") {
    if (!(($4 SUBSEP set) in seen)) {
      seen[$4, set] = 1
      sets[$4] = sets[$4] " " set
      count[$4]++
    }
    where[$4] = where[$4] "\n    " $2 " (" set ")"
  }
  $1 == "H" && set != "plain" && $3 ~ /^\.(init_array|ctors)/ && $3 != ".init_array.00099" {
    startup[$2] = set " object runs code at start-up (" $3 "): " $2
  }
  END {
    for (i = 1; i <= n; ++i) {
      if (!(list[i] in present)) {
        print "no object of instruction set " list[i] " among the inputs: nothing to check it against"
        exit 1
      }
    }
    offenders = 0
    for (symbol in count) {
      if (count[symbol] > 1) {
        print "shared across instruction sets:" sets[symbol] ": " symbol where[symbol]
        ++offenders
      }
    }
    for (object in startup) {
      print startup[object]
      ++offenders
    }
    if (offenders > 0) {
      print offenders " offender(s): code of one instruction set that may run where another was chosen"
      exit 1
    }
    print "no weak function shared across instruction sets (" suffixes ", plain), no start-up code in theirs"
  }') && status=0 || status=$?
if command -v c++filt >/dev/null; then
  c++filt <<<"$report"
else
  echo "$report"
fi
exit "$status"
