// Certificate and public key recovery, and the kernel's RSA and SHA-1 entry
// points.
#include "baseKernel.h"
#include "reg_alg.h"

extern "C" {

uint32_t Velk_RSA_Encrypt(const uint8_t *pModule, uint32_t ModuleLen, const uint8_t *pExponent,
                          uint32_t ExponentLen, const uint8_t *pInData, uint32_t InDatalen,
                          uint8_t *pOutData) {
    return static_cast<uint32_t>(
        rsa_encrypt_(pModule, ModuleLen, pExponent, ExponentLen, pInData, InDatalen, pOutData));
}

// Selector 1 is the SHA-1 request that sha_ accepts (the enumeration names it
// SHA_128); 0 would hash nothing.
void Velk_SHA1_Compute(const uint8_t *pucInData, uint32_t uiInLen, uint8_t *pucDigest) {
    (void)sha_(SHA_128, pucInData, uiInLen, pucDigest);
}

}  // extern "C"
