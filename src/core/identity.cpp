// Edition, storage tier and version strings.
#include "quorvane.h"

namespace {
const char kVersion[] = "2.0.0";
}

extern "C" {
QVN_API const char *qvn_edition(void) { return "Ambrel"; }
QVN_API const char *qvn_storage(void) { return "Ostrany"; }
QVN_API const char *qvn_version(void) { return kVersion; }
// The ABI version is the version text itself.
QVN_API const char *qvn_abi_version(void) { return kVersion; }
}
