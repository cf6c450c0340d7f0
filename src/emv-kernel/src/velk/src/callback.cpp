// Callback message channel: requests to the host and the APDU exchange.
#include "baseKernel.h"
