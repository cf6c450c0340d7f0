// SPDX-License-Identifier: Apache-2.0
// Cryptographic services: dispatch to the host's table by selector.
#include "reg_alg.h"

#include "emv_kernel_global.h"

extern "C" {

int rsa_decrypt_(const uint8_t *n, uint32_t nLen, const uint8_t *d, uint32_t dLen,
                 const uint8_t *iBuf, uint32_t iLen, uint8_t *oBuf) {
    return pemv_kn_glb->opt_alg.opt_rsa_decrypt(n, nLen, d, dLen, iBuf, iLen, oBuf);
}

int rsa_encrypt_(const uint8_t *n, uint32_t nLen, const uint8_t *e, uint32_t eLen,
                 const uint8_t *iBuf, uint32_t iLen, uint8_t *oBuf) {
    return pemv_kn_glb->opt_alg.opt_rsa_encrypt(n, nLen, e, eLen, iBuf, iLen, oBuf);
}

// Only the selector 1 (SHA_128) hashes: it is the value the kernel passes for
// SHA-1, and SHA_1 (0) deliberately hashes nothing.
int sha_(uint32_t type, const uint8_t *ibuf, uint32_t ibufLen, uint8_t *obuf) {
    if (type != SHA_128) return 0;
    return pemv_kn_glb->opt_alg.opt_sha_1(ibuf, ibufLen, obuf);
}

int des_(uint32_t desType, const uint8_t *key, uint32_t keyLen, const uint8_t *fill,
         const uint8_t *ibuf, uint32_t ibufLen, uint8_t *obuf) {
    switch (desType) {
        case DES_ECB_ENCRYPT:
        case DES_CBC_ENCRYPT:
            return pemv_kn_glb->opt_alg.opt_des_encrypt(key, keyLen, fill, ibuf, ibufLen, obuf);
        case DES_ECB_DECRYPT:
        case DES_CBC_DECRYPT:
            return pemv_kn_glb->opt_alg.opt_des_decrypt(key, keyLen, fill, ibuf, ibufLen, obuf);
        default:
            return 0;
    }
}

int aes_(uint32_t aesType, const uint8_t *key, uint32_t keyLen, const uint8_t *ibuf,
         uint32_t ibufLen, uint8_t *obuf) {
    switch (aesType) {
        case AES_ENCRYPT:
            return pemv_kn_glb->opt_alg.opt_aes_encrypt(key, keyLen, ibuf, ibufLen, obuf);
        case AES_DECRYPT:
            return pemv_kn_glb->opt_alg.opt_aes_decrypt(key, keyLen, ibuf, ibufLen, obuf);
        default:
            return 0;
    }
}

}  // extern "C"
