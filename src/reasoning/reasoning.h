// Reasoning plug-in loading and AI dispatch.
#ifndef QVN_REASONING_REASONING_H
#define QVN_REASONING_REASONING_H

#include "core/context.h"

// qvn_reasoning_call_fini_and_clear is declared in core/context.h.

#endif
