// TLV tree editing library.
#include "kn_tlv.h"
