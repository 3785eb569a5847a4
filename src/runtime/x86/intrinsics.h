// The x86 intrinsics, included in one place. GCC 12's AVX-512 header
// initialises its "undefined vector" helpers from themselves, which
// -Wuninitialized reports at every inlined use (GCC bug 105593, fixed in
// later releases). The pragma covers only the lines of the compiler's own
// header; our code stays under every warning.
#pragma once

#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wuninitialized"
#pragma GCC diagnostic ignored "-Wmaybe-uninitialized"
#include <immintrin.h>
#pragma GCC diagnostic pop
