// The BER-TLV codec.
#include "tlv.h"
