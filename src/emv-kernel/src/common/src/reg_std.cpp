// SPDX-License-Identifier: Apache-2.0
// Memory and text services: one indirect call each into the host's table.
#include "reg_std.h"

#include "emv_kernel_global.h"

extern "C" {

void *Memset_(void *str, int c, int n) {
    return pemv_kn_glb->opt_std.opt_memset(str, c, n);
}

void *Memcpy_(void *dest, const void *src, int n) {
    return pemv_kn_glb->opt_std.opt_memcpy(dest, src, n);
}

int Memcmp_(const void *str1, const void *str2, int n) {
    return pemv_kn_glb->opt_std.opt_memcmp(str1, str2, n);
}

int Strlen_(const char *str) {
    return pemv_kn_glb->opt_std.opt_strlen(str);
}

int Printf_(const char *fmt, ...) {
    (void)fmt;
    return 0;
}

int Sprintf_(char *str, const char *fmt, ...) {
    (void)str;
    (void)fmt;
    return 0;
}

}  // extern "C"
