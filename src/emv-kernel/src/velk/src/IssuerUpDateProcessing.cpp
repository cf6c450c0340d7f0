// Issuer script processing: templates 71 and 72 from the issuer response.
#include "baseKernel.h"
