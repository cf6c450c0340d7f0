// Card action analysis: the second GENERATE AC and its response.
#include "baseKernel.h"
