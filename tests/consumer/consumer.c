// SPDX-License-Identifier: Apache-2.0
/* A tiny integrator: includes the installed header, defines the platform
 * services the library imports, binds a block and checks the entry functions'
 * answers. Built against an installed libvelk, shared and static. */
#include <stdint.h>
#include <stdio.h>
#include <string.h>

#include <emv_kernel.h>

_Static_assert(VELK_EXCHANGE_BUFFER_LEN == 2048u, "exchange buffer");
_Static_assert(VELK_IO_BUFFER_MIN_LEN >= 2048u, "io buffer");
_Static_assert(sizeof(void *) == 4 ? VELK_LOCAL_PARAM_MIN_LEN == 10204u : 1, "block on ILP32");

/* The platform services count their calls: a kernel that reaches them has
 * resolved pemv_kn_glb to this program's definition. */
static unsigned platform_calls;

static void *counted_memset(void *d, int v, int n) {
    ++platform_calls;
    return memset(d, v, (size_t)n);
}
static void *counted_memcpy(void *d, const void *s, int n) {
    ++platform_calls;
    return memcpy(d, s, (size_t)n);
}
static int counted_memcmp(const void *a, const void *b, int n) {
    ++platform_calls;
    return memcmp(a, b, (size_t)n);
}
static int counted_strlen(const char *s) {
    ++platform_calls;
    return (int)strlen(s);
}

static emv_kn_glb_t platform = {
    .opt_std = {counted_memset, counted_memcpy, counted_memcmp, counted_strlen, NULL}};
emv_kn_glb_t *pemv_kn_glb = &platform;

static uint32_t callback(uint8_t *buf, uint32_t *len) {
    (void)buf;
    (void)len;
    return 1;
}

static _Alignas(
    VELK_LOCAL_PARAM_ALIGN) uint8_t block[VELK_LOCAL_PARAM_MIN_LEN + VELK_LOCAL_PARAM_ALIGN];

static int expect(const char *what, uint32_t got, uint32_t want) {
    if (got == want) return 0;
    fprintf(stderr, "%s: 0x%X, expected 0x%X\n", what, (unsigned)got, (unsigned)want);
    return 1;
}

int main(void) {
    int failures = 0;
    failures += expect("short block",
                       Kernel_Set_Local_Param_Pointer_VELK_(block, VELK_LOCAL_PARAM_MIN_LEN - 1),
                       VELK_ERR_BLOCK_TOO_SMALL);
    failures += expect("misaligned block",
                       Kernel_Set_Local_Param_Pointer_VELK_(block + 1, VELK_LOCAL_PARAM_MIN_LEN),
                       VELK_ERR_BLOCK_MISALIGNED);
    failures += expect(
        "bind", Kernel_Set_Local_Param_Pointer_VELK_(block, VELK_LOCAL_PARAM_MIN_LEN), VELK_OK);
    failures += expect("callback", Kernel_load_callback_Routine_VELK_(callback, 0), VELK_OK);
    failures += expect("init", Kernel_Init_VELK_(NULL, 0), VELK_OK);
    failures += expect("proprietary tag", Kernel_Set_Proprietary_Tag_VELK_(NULL), VELK_OK);
    /* An empty input: whatever the kernel makes of it, it first clears its
     * transaction state through the host's memset. */
    static uint8_t io[VELK_IO_BUFFER_MIN_LEN];
    uint32_t len = 0;
    (void)Kernel_Start_VELK_(io, &len);
    if (platform_calls == 0) {
        fprintf(stderr, "the kernel never called the platform services of pemv_kn_glb\n");
        ++failures;
    }
    if (failures != 0) return 1;
    printf("consumer OK\n");
    return 0;
}
