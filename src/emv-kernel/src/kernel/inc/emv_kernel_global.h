// SPDX-License-Identifier: Apache-2.0
/*
 * Interface between the host framework and the kernels it loads: the platform
 * service tables and the framework's global record.
 *
 * The host framework defines the global `pemv_kn_glb` (a pointer to an
 * emv_kn_glb_t) and fills the two service tables before the first
 * transaction. The kernel resolves the symbol from the host at load time; the
 * library itself does not define it.
 *
 * C-compatible: this header is included by C hosts as well as by the kernel.
 */
#ifndef EMV_KERNEL_GLOBAL_H
#define EMV_KERNEL_GLOBAL_H

#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

/* Memory and string services. Every member must be set before the first
 * transaction, except opt_log, which may be null (trace lines are then
 * dropped). */
typedef struct emv_kernel_std_t {
    void *(*opt_memset)(void *dest, int value, int count);
    void *(*opt_memcpy)(void *dest, const void *src, int count);
    int (*opt_memcmp)(const void *a, const void *b, int count);
    int (*opt_strlen)(const char *str);
    void (*opt_log)(const char *text);
} emv_kernel_std_t;

/* Cryptographic services. All pointers are byte pointers, all lengths
 * unsigned 32-bit, all results int.
 *
 * opt_rsa_encrypt is the RSA public-key operation: out = in ^ e mod n, the
 * output as long as the modulus. opt_sha_1 writes a 20-byte digest.
 * For DES/3DES, `fill` is handed on unchanged by the kernel; the framework in
 * this project reads it as an optional 8-byte initial vector (null: ECB). */
typedef struct emv_kernel_alg_t {
    int (*opt_rsa_decrypt)(const uint8_t *n, uint32_t nLen, const uint8_t *d, uint32_t dLen,
                           const uint8_t *in, uint32_t inLen, uint8_t *out);
    int (*opt_rsa_encrypt)(const uint8_t *n, uint32_t nLen, const uint8_t *e, uint32_t eLen,
                           const uint8_t *in, uint32_t inLen, uint8_t *out);
    int (*opt_sha_1)(const uint8_t *in, uint32_t inLen, uint8_t *digest);
    int (*opt_des_decrypt)(const uint8_t *key, uint32_t keyLen, const uint8_t *fill,
                           const uint8_t *in, uint32_t inLen, uint8_t *out);
    int (*opt_des_encrypt)(const uint8_t *key, uint32_t keyLen, const uint8_t *fill,
                           const uint8_t *in, uint32_t inLen, uint8_t *out);
    int (*opt_aes_decrypt)(const uint8_t *key, uint32_t keyLen, const uint8_t *in, uint32_t inLen,
                           uint8_t *out);
    int (*opt_aes_encrypt)(const uint8_t *key, uint32_t keyLen, const uint8_t *in, uint32_t inLen,
                           uint8_t *out);
} emv_kernel_alg_t;

/* Algorithm selectors shared with the host framework. */
typedef enum Sha_Type_t {
    SHA_1 = 0,
    SHA_128 = 1, /* the value the kernel passes for SHA-1 */
    SHA_224 = 2,
    SHA_256 = 3,
    SHA_384 = 4,
    SHA_512 = 5
} Sha_Type_t;

typedef enum Des_Type_t {
    DES_ECB_ENCRYPT = 0,
    DES_ECB_DECRYPT = 1,
    DES_CBC_ENCRYPT = 2,
    DES_CBC_DECRYPT = 3
} Des_Type_t;

typedef enum AES_Type_t {
    AES_ENCRYPT = 0,
    AES_DECRYPT = 1,
    AES_ECB_ENCRYPT = 2,
    AES_ECB_DECRYPT = 3,
    AES_CBC_ENCRYPT = 4,
    AES_CBC_DECRYPT = 5
} AES_Type_t;

/* Size of the framework's local parameter area. */
#define EMV_KN_LOCAL_PARAM_LEN 36864u

/* The framework's global record. The first two members are the service
 * tables the kernel reads; the rest belongs to the framework and is read by
 * no kernel code. A host may pass local_param to
 * Kernel_Set_Local_Param_Pointer_VELK_ as the kernel's block (it is aligned
 * for that use). */
typedef struct emv_kn_glb_t {
    emv_kernel_std_t opt_std;
    emv_kernel_alg_t opt_alg;
    uint32_t (*trans_cbk)(uint8_t *pInOutData, uint32_t *puiInOutDatalen);
    uint32_t kernel_id;
    uint32_t card_type;
    uint32_t error_code;
    uint8_t *start_buf;
    uint32_t start_buf_len;
    uint8_t local_param[EMV_KN_LOCAL_PARAM_LEN] __attribute__((aligned(8)));
} emv_kn_glb_t;

/* Defined by the host framework, imported by the kernel. */
extern emv_kn_glb_t *pemv_kn_glb;

#ifdef __cplusplus
}
#endif

#endif /* EMV_KERNEL_GLOBAL_H */
