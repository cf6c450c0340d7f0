// SPDX-License-Identifier: Apache-2.0
/*
 * Cryptographic services of the common library: thin wrappers over the host's
 * opt_alg table. The selector values are those of Sha_Type_t, Des_Type_t and
 * AES_Type_t (emv_kernel_global.h); unsupported selectors return 0 and do
 * nothing.
 */
#ifndef REG_ALG_H
#define REG_ALG_H

#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

int rsa_decrypt_(const uint8_t *n, uint32_t nLen, const uint8_t *d, uint32_t dLen,
                 const uint8_t *iBuf, uint32_t iLen, uint8_t *oBuf);
int rsa_encrypt_(const uint8_t *n, uint32_t nLen, const uint8_t *e, uint32_t eLen,
                 const uint8_t *iBuf, uint32_t iLen, uint8_t *oBuf);
/* Hashes only for type 1 (SHA_128, the kernel's SHA-1 request). */
int sha_(uint32_t type, const uint8_t *ibuf, uint32_t ibufLen, uint8_t *obuf);
/* Types 0 and 2 encrypt, 1 and 3 decrypt; the mode is not passed on. */
int des_(uint32_t desType, const uint8_t *key, uint32_t keyLen, const uint8_t *fill,
         const uint8_t *ibuf, uint32_t ibufLen, uint8_t *obuf);
/* Type 0 encrypts, 1 decrypts; the ECB and CBC selectors do nothing. */
int aes_(uint32_t aesType, const uint8_t *key, uint32_t keyLen, const uint8_t *ibuf,
         uint32_t ibufLen, uint8_t *obuf);

#ifdef __cplusplus
}
#endif

#endif /* REG_ALG_H */
