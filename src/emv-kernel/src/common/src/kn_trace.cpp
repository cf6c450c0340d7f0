// Trace output to the host's log sink.
#include "kn_trace.h"
