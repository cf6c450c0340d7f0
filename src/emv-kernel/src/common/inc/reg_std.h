// SPDX-License-Identifier: Apache-2.0
/*
 * Memory and text services of the common library: thin wrappers over the
 * host's opt_std table. Each reads pemv_kn_glb at the time of the call; none
 * checks that the table or the member is set (a missing pointer is a fault of
 * the host).
 */
#ifndef REG_STD_H
#define REG_STD_H

#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

void *Memset_(void *str, int c, int n);
void *Memcpy_(void *dest, const void *src, int n);
int Memcmp_(const void *str1, const void *str2, int n);
int Strlen_(const char *str);
/* Discard their arguments: the entry module's dumps print through these. */
int Printf_(const char *fmt, ...);
int Sprintf_(char *str, const char *fmt, ...);

#ifdef __cplusplus
}
#endif

#endif /* REG_STD_H */
