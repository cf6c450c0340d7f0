// SPDX-License-Identifier: Apache-2.0
/*
 * minimal_host.c: a complete libvelk host in plain C11.
 *
 * It runs one contactless purchase of 1.00 against a small scripted card and
 * prints the outcome. The card asks for no offline data authentication and
 * answers the first GENERATE AC with a TC, so the purchase is approved
 * offline. Everything a real host does is here, in the order it does it:
 *
 *   1. publish the platform services the kernel imports (pemv_kn_glb);
 *   2. bind a zero-filled, aligned block for the kernel's state;
 *   3. load the callback that answers the kernel's requests;
 *   4. initialise the kernel;
 *   5. post the selected application's FCI as signal A0;
 *   6. pass the transaction input (DF09 and 7F11) to Kernel_Start_VELK_ and
 *      read the outcome TLV from the same buffer.
 *
 * Build against an installed libvelk:
 *   cc -std=c11 -Wall -Wextra -pedantic minimal_host.c $(pkg-config --cflags --libs velk)
 *
 * docs/integration.md describes every request, signal and tag used here.
 */
#include <stdint.h>
#include <stdio.h>
#include <string.h>
#include <time.h>

#include <emv_kernel.h>

/* ---- TLV helpers ------------------------------------------------------------
 * Messages, the transaction input and the outcome are BER-TLV. These few
 * helpers are all this host needs: write one element, find one element among
 * a sequence of elements. */

/* Writes tag, length and value at out; returns the bytes written. The value
 * may overlap out (it is moved, not copied). */
static size_t put_tlv(uint8_t *out, uint32_t tag, const uint8_t *value, size_t len) {
    uint8_t header[8];
    size_t h = 0;
    for (int shift = 24; shift > 0; shift -= 8)
        if ((tag >> shift) != 0) header[h++] = (uint8_t)(tag >> shift);
    header[h++] = (uint8_t)tag;
    if (len > 0xFF) {
        header[h++] = 0x82;
        header[h++] = (uint8_t)(len >> 8);
    } else if (len > 0x7F) {
        header[h++] = 0x81;
    }
    header[h++] = (uint8_t)len;
    memmove(out + h, value, len);
    memcpy(out, header, h);
    return h + len;
}

/* Reads the header of the element at p (at most end - p bytes). Returns the
 * header's size, with the tag and the value's length; 0 when malformed. */
static size_t read_header(const uint8_t *p, const uint8_t *end, uint32_t *tag, size_t *len) {
    const uint8_t *q = p;
    if (q >= end) return 0;
    *tag = *q;
    if ((*q++ & 0x1F) == 0x1F) { /* multi-byte tag */
        do {
            if (q >= end) return 0;
            *tag = (*tag << 8) | *q;
        } while (*q++ & 0x80);
    }
    if (q >= end) return 0;
    size_t n = *q++;
    if (n & 0x80) {
        size_t bytes = n & 0x7F;
        if (bytes == 0 || bytes > 2 || (size_t)(end - q) < bytes) return 0;
        for (n = 0; bytes-- > 0;)
            n = (n << 8) | *q++;
    }
    if ((size_t)(end - q) < n) return 0;
    *len = n;
    return (size_t)(q - p);
}

/* Finds tag among the elements that fill [p, p + size); the value, or NULL. */
static const uint8_t *find_tlv(const uint8_t *p, size_t size, uint32_t tag, size_t *len) {
    const uint8_t *end = p + size;
    while (p < end) {
        uint32_t t;
        size_t n;
        size_t h = read_header(p, end, &t, &n);
        if (h == 0) return NULL;
        if (t == tag) {
            *len = n;
            return p + h;
        }
        p += h + n;
    }
    return NULL;
}

static size_t from_hex(const char *hex, uint8_t *out) {
    size_t n = 0;
    for (; hex[0] != '\0' && hex[1] != '\0'; hex += 2) {
        unsigned byte;
        if (sscanf(hex, "%2x", &byte) != 1) break;
        out[n++] = (uint8_t)byte;
    }
    return n;
}

static void print_hex(const uint8_t *p, size_t n) {
    for (size_t i = 0; i < n; ++i)
        printf("%02X", p[i]);
}

/* A data element given as tag and hex text, and a list of them written as a
 * sequence of TLVs. */
struct element {
    uint32_t tag;
    const char *hex;
};
#define COUNT(a) (sizeof(a) / sizeof((a)[0]))

static size_t put_elements(uint8_t *out, const struct element *list, size_t count) {
    size_t n = 0;
    for (size_t i = 0; i < count; ++i) {
        uint8_t value[128];
        n += put_tlv(out + n, list[i].tag, value, from_hex(list[i].hex, value));
    }
    return n;
}

/* ---- 1. Platform services ----------------------------------------------------
 * The kernel calls these through the global pemv_kn_glb, which the host
 * defines. Memory functions come from the C library. This host's card needs
 * no offline data authentication, so the crypto members stay NULL; a host
 * whose cards use SDA, DDA or CDA must supply opt_rsa_encrypt and opt_sha_1.
 * opt_log may be NULL: the kernel's trace lines are then dropped. */

static void *std_memset(void *dest, int value, int count) {
    return memset(dest, value, (size_t)count);
}
static void *std_memcpy(void *dest, const void *src, int count) {
    return memcpy(dest, src, (size_t)count);
}
static int std_memcmp(const void *a, const void *b, int count) {
    return memcmp(a, b, (size_t)count);
}
static int std_strlen(const char *s) {
    return (int)strlen(s);
}

static emv_kn_glb_t platform = {
    .opt_std = {std_memset, std_memcpy, std_memcmp, std_strlen, NULL},
    .opt_alg = {NULL, NULL, NULL, NULL, NULL, NULL, NULL},
};
emv_kn_glb_t *pemv_kn_glb = &platform;

/* ---- The reader's configuration ---------------------------------------------
 * The kernel asks for it with D1 (terminal parameters) and D3 (the parameters
 * of the selected AID). Every element of the reply is stored in the kernel's
 * database. */

static const struct element terminal_parameters[] = {
    /* Kernel capabilities 9F9301 (bytes counted from 0, capability 0xNMM is
     * byte N, mask MM): byte 0 0x04 online PIN, 0x02 signature; byte 4 0x40
     * SDA, 0x10 CVM list, 0x08 restrictions and risk management, 0x01 CDA. */
    {0x9F9301, "0600000059"},
    {0x9F9302, "06"}, /* options: restart after online (0x04), online response (0x02) */
    {0x9F35, "22"},   /* terminal type: attended, offline with online capability */
    {0x9F15, "5999"}, /* merchant category code */
};

/* The acquirer of this demo approves offline below the floor limit without
 * offline data authentication: the Terminal Action Codes ask for nothing. */
static const struct element aid_parameters[] = {
    {0x9F09, "0002"},           /* application version number (terminal) */
    {0x9F8208, "000000010000"}, /* contactless transaction limit: 100.00 */
    {0x9F8209, "000000003000"}, /* CVM required limit: 30.00 */
    {0x9F820A, "000000005000"}, /* contactless floor limit: 50.00 */
    {0x9F8245, "0000000000"},   /* TAC default */
    {0x9F8246, "0000000000"},   /* TAC denial */
    {0x9F8247, "0000000000"},   /* TAC online */
};

/* ---- The card ------------------------------------------------------------------
 * A scripted card: the application's FCI, the GPO response, one record and a
 * GENERATE AC that gives the cryptogram asked for. A real host sends the
 * C-APDU to its reader instead. */

#define AID "F056454C4B0101"

/* FCI: 6F { 84 DF name, A5 { 50 label, 9F38 PDOL, 5F2D language } }. The
 * kernel needs a PDOL: here amount, currency, date, type, unpredictable
 * number. */
static const struct element fci_proprietary[] = {
    {0x50, "44454D4F2043415244"}, /* "DEMO CARD" */
    {0x9F38, "9F02065F2A029A039C019F3704"},
    {0x5F2D, "656E"}, /* "en" */
};

/* GPO response, format 2: AIP 00 00 (no offline data authentication, no
 * cardholder verification, no risk management) and one record to read:
 * AFL 08 01 01 00 = SFI 1, records 1 to 1, none for offline authentication. */
static const struct element gpo_response[] = {
    {0x82, "0000"},
    {0x94, "08010100"},
};

static const struct element record_1[] = {
    {0x57, "9999990123456782D28122010000000000"}, /* track 2 equivalent data */
    {0x5A, "9999990123456782"},                   /* PAN */
    {0x5F24, "281231"},                           /* expiry */
    {0x5F34, "01"},                               /* PAN sequence number */
    {0x5F20, "44454D4F2F43415244"},               /* "DEMO/CARD" */
    {0x9F42, "0978"},                             /* application currency */
    /* CDOL1: amount, other amount, country, TVR, currency, date, type, UN */
    {0x8C, "9F02069F03069F1A0295055F2A029A039C019F3704"},
    {0x8D, "8A0295059F3704"},       /* CDOL2 */
    {0x8E, "00000000000000001F00"}, /* CVM list: no CVM required, always */
    {0x9F0D, "0000000000"},         /* issuer action codes: default, */
    {0x9F0E, "0000000000"},         /* denial, */
    {0x9F0F, "0000000000"},         /* online */
};

static uint16_t atc = 0x0041; /* application transaction counter */

/* Answers one C-APDU into rapdu; returns the R-APDU's length. */
static size_t card_answer(const uint8_t *capdu, size_t n, uint8_t *rapdu) {
    uint8_t body[256];
    size_t len = 0;
    uint8_t ins = n >= 2 ? capdu[1] : 0;
    if (ins == 0xA8) { /* GET PROCESSING OPTIONS */
        len = put_elements(body, gpo_response, COUNT(gpo_response));
        len = put_tlv(rapdu, 0x77, body, len);
    } else if (ins == 0xB2 && n >= 4 && capdu[2] == 1 && capdu[3] == 0x0C) { /* READ RECORD */
        len = put_elements(body, record_1, COUNT(record_1));
        len = put_tlv(rapdu, 0x70, body, len);
    } else if (ins == 0xAE && n >= 4) { /* GENERATE AC: P1 names the cryptogram */
        uint8_t cid = capdu[2] & 0xC0;  /* 0x00 AAC, 0x40 TC, 0x80 ARQC */
        uint8_t counter[2] = {(uint8_t)(atc >> 8), (uint8_t)atc};
        ++atc;
        len = put_tlv(body, 0x9F27, &cid, 1);
        len += put_tlv(body + len, 0x9F36, counter, 2);
        uint8_t ac[8];
        len += put_tlv(body + len, 0x9F26, ac, from_hex("1A2B3C4D5E6F7081", ac));
        uint8_t iad[7];
        len += put_tlv(body + len, 0x9F10, iad, from_hex("06010A03A00000", iad));
        len = put_tlv(rapdu, 0x77, body, len);
    } else if (ins == 0xCA) { /* GET DATA: nothing to give */
        rapdu[len++] = 0x6A;
        rapdu[len++] = 0x88;
        return len;
    } else { /* anything else: instruction not supported */
        rapdu[len++] = 0x6D;
        rapdu[len++] = 0x00;
        return len;
    }
    rapdu[len++] = 0x90;
    rapdu[len++] = 0x00;
    return len;
}

/* ---- Signals -------------------------------------------------------------------
 * Signals are how the host tells the kernel of events: the FCI (A0), a
 * response APDU that comes later (A4), a stop (A1), communication errors (A5,
 * A6). The kernel copies the record; the data must stay valid until the
 * kernel has taken the signal, hence static storage here. */

static void post_signal(uint8_t type, uint8_t *data, uint32_t len) {
    ClessSignal_Message signal = {type, data, len};
    (void)Kernel_Customized_Contactless_VELK_((uint8_t *)&signal);
}

/* ---- Names for what the kernel reports ---------------------------------------- */

struct name {
    uint32_t code;
    const char *text;
};

static const char *name_of(const struct name *table, size_t count, uint32_t code) {
    for (size_t i = 0; i < count; ++i)
        if (table[i].code == code) return table[i].text;
    return "";
}

/* Byte 0 of the Outcome Parameter Set. */
static const struct name statuses[] = {
    {0x00, "none reached"},          {0x10, "Approved"},        {0x20, "Declined"},
    {0x30, "Online Request"},        {0x40, "End Application"}, {0x50, "Select Next"},
    {0x60, "Try Another Interface"}, {0x70, "Try Again"},
};

/* Byte 3 of the Outcome Parameter Set. */
static const struct name cvms[] = {
    {0x00, "no CVM"},         {0x10, "obtain signature"},
    {0x20, "online PIN"},     {0x30, "confirmation code verified"},
    {0xF0, "not applicable"},
};

/* Byte 0 of the User Interface Request Data: the message to show. */
static const struct name messages[] = {
    {0x03, "Approved"},
    {0x07, "Not authorised"},
    {0x09, "Please enter your PIN"},
    {0x10, "Remove card"},
    {0x16, "Processing"},
    {0x17, "Card read OK"},
    {0x18, "Please insert or swipe card"},
    {0x1A, "Approved, please sign"},
    {0x1B, "Authorising, please wait"},
    {0x1C, "Insert, swipe or try another card"},
    {0x1D, "Please insert card"},
    {0x20, "See phone for instructions"},
    {0x21, "Present card again"},
    {0xB0, "Approved (online)"},
};

/* Tags of the data record. */
static const struct name tags[] = {
    {0x50, "application label"},
    {0x57, "track 2 equivalent data"},
    {0x5A, "PAN"},
    {0x5F20, "cardholder name"},
    {0x5F24, "expiry date"},
    {0x5F2A, "transaction currency"},
    {0x5F34, "PAN sequence number"},
    {0x82, "AIP"},
    {0x84, "DF name"},
    {0x95, "TVR"},
    {0x9A, "transaction date"},
    {0x9C, "transaction type"},
    {0x9F02, "amount, authorised"},
    {0x9F06, "AID"},
    {0x9F10, "issuer application data"},
    {0x9F15, "merchant category code"},
    {0x9F1A, "terminal country"},
    {0x9F21, "transaction time"},
    {0x9F26, "application cryptogram"},
    {0x9F27, "cryptogram information data"},
    {0x9F34, "CVM results"},
    {0x9F35, "terminal type"},
    {0x9F36, "ATC"},
    {0x9F37, "unpredictable number"},
};

/* ---- 3. The callback -------------------------------------------------------------
 * Every request is 7F01 { DF00 command, payload } in the kernel's exchange
 * buffer. The host writes its reply, one TLV 7F01 with the reply's elements,
 * into the same buffer (at most VELK_EXCHANGE_BUFFER_LEN bytes) and returns
 * 0. A non-zero result fails the request. */

static uint32_t unpredictable_state = 0x2545F491u;

static uint32_t on_kernel_request(uint8_t *buf, uint32_t *len) {
    size_t msg_len = 0, n = 0;
    const uint8_t *msg = find_tlv(buf, *len, 0x7F01, &msg_len);
    const uint8_t *command = msg ? find_tlv(msg, msg_len, 0xDF00, &n) : NULL;
    if (command == NULL || n != 1) return 1; /* not a request: refuse it */

    uint8_t reply[VELK_EXCHANGE_BUFFER_LEN - 8];
    size_t reply_len = 0;
    switch (*command) {
        case 0xD1: /* terminal parameters */
            reply_len = put_elements(reply, terminal_parameters, COUNT(terminal_parameters));
            break;
        case 0xD3: /* parameters of the AID in 9F06 (with 9C and 5F2A) */
            reply_len = put_elements(reply, aid_parameters, COUNT(aid_parameters));
            break;
        case 0xD5: { /* unpredictable number: use the terminal's random source */
            unpredictable_state = unpredictable_state * 1664525u + 1013904223u;
            uint8_t un[4] = {(uint8_t)(unpredictable_state >> 24),
                             (uint8_t)(unpredictable_state >> 16),
                             (uint8_t)(unpredictable_state >> 8), (uint8_t)unpredictable_state};
            reply_len = put_tlv(reply, 0x9F37, un, sizeof un);
            break;
        }
        case 0xD6: /* activate the card: once it is in the field, say so with a
                    * signal (any type but A1, A5 and A6) */
            post_signal(0xA4, NULL, 0);
            break;
        case 0xD7: { /* show the User Interface Request Data (22 bytes) */
            const uint8_t *uird = find_tlv(msg, msg_len, 0xDF8116, &n);
            if (uird != NULL && n >= 2)
                printf("display: %s (message 0x%02X, status 0x%02X)\n",
                       name_of(messages, COUNT(messages), uird[0]), uird[0], uird[1]);
            break;
        }
        case 0xDF: /* power the card off */
            printf("card powered off\n");
            break;
        case 0xF1: { /* send DF01 to the card; its answer goes back in DF03 */
            const uint8_t *capdu = find_tlv(msg, msg_len, 0xDF01, &n);
            if (capdu == NULL) return 1;
            uint8_t rapdu[258];
            size_t rapdu_len = card_answer(capdu, n, rapdu);
            printf("card: ");
            print_hex(capdu, n > 5 ? 5 : n);
            printf("%s -> SW %02X%02X\n", n > 5 ? "..." : "", rapdu[rapdu_len - 2],
                   rapdu[rapdu_len - 1]);
            reply_len = put_tlv(reply, 0xDF03, rapdu, rapdu_len);
            break;
        }
        default: /* A2, A3, D4, E6, E9, FE: nothing to store or deliver here */
            break;
    }
    *len = (uint32_t)put_tlv(buf, 0x7F01, reply, reply_len);
    return 0;
}

/* ---- Reading the outcome ------------------------------------------------------------ */

static void print_elements(const char *title, const uint8_t *p, size_t size) {
    printf("%s:\n", title);
    for (const uint8_t *end = p + size; p < end;) {
        uint32_t tag;
        size_t n;
        size_t h = read_header(p, end, &tag, &n);
        if (h == 0) break;
        printf("  %-6X %-28s ", (unsigned)tag, name_of(tags, COUNT(tags), tag));
        print_hex(p + h, n);
        printf("\n");
        p += h + n;
    }
}

/* Prints the outcome TLV; 0 when it holds an Outcome Parameter Set. */
static int print_outcome(const uint8_t *io, uint32_t len) {
    size_t size = 0, n = 0;
    const uint8_t *outcome = find_tlv(io, len, 0x7F01, &size);
    const uint8_t *ops = outcome ? find_tlv(outcome, size, 0xDF8129, &n) : NULL;
    if (ops == NULL || n != 8) {
        printf("no outcome\n");
        return 1;
    }
    printf("Outcome: %s (0x%02X)\n", name_of(statuses, COUNT(statuses), ops[0]), ops[0]);
    printf("  CVM: %s (0x%02X)\n", name_of(cvms, COUNT(cvms), ops[3]), ops[3]);
    printf("  start 0x%02X, online response data 0x%02X, alternate interface 0x%02X\n", ops[1],
           ops[2], ops[5]);
    printf("  field off 0x%02X, removal timeout %u, receipt %s\n", ops[6], ops[7],
           (ops[4] & 0x08) ? "yes" : "no");
    const uint8_t *uird = find_tlv(outcome, size, 0xDF8116, &n);
    if (uird != NULL && n >= 2)
        printf("  message: %s (0x%02X), status 0x%02X\n",
               name_of(messages, COUNT(messages), uird[0]), uird[0], uird[1]);
    const uint8_t *record = find_tlv(outcome, size, 0xFF8105, &n);
    if (record != NULL) print_elements("Data record", record, n);
    const uint8_t *discretionary = find_tlv(outcome, size, 0xFF8106, &n);
    if (discretionary != NULL) print_elements("Discretionary data", discretionary, n);
    return 0;
}

/* ---- The transaction ------------------------------------------------------------------ */

/* 2. The kernel's block: static storage is zero-filled, as the kernel needs. */
static _Alignas(VELK_LOCAL_PARAM_ALIGN) uint8_t kernel_block[VELK_LOCAL_PARAM_MIN_LEN];

/* The input and outcome buffer, and the SELECT response posted as A0. */
static uint8_t io[VELK_IO_BUFFER_MIN_LEN];
static uint8_t select_response[256];

static uint8_t bcd(int value) {
    return (uint8_t)(((value / 10) % 10) << 4 | (value % 10));
}

int main(void) {
    uint32_t rv = Kernel_Set_Local_Param_Pointer_VELK_(kernel_block, sizeof kernel_block);
    if (rv != VELK_OK) {
        fprintf(stderr, "the kernel refused its block: 0x%X\n", (unsigned)rv);
        return 2;
    }
    (void)Kernel_load_callback_Routine_VELK_(on_kernel_request, 0);
    (void)Kernel_Init_VELK_(NULL, 0);

    /* 5. Entry point selected the application: hand its SELECT response
     * (FCI and status word 90 00) to the kernel before the start. */
    uint8_t a5[128], aid[16];
    size_t a5_len = put_elements(a5, fci_proprietary, COUNT(fci_proprietary));
    size_t fci_len = put_tlv(select_response, 0x84, aid, from_hex(AID, aid));
    fci_len += put_tlv(select_response + fci_len, 0xA5, a5, a5_len);
    fci_len = put_tlv(select_response, 0x6F, select_response, fci_len);
    select_response[fci_len++] = 0x90;
    select_response[fci_len++] = 0x00;
    post_signal(0xA0, select_response, (uint32_t)fci_len);

    /* 6. The transaction input: DF09 (kernel identifier), then 7F11 with the
     * transaction's data elements. */
    time_t now = time(NULL);
    struct tm today = {.tm_year = 125, .tm_mon = 0, .tm_mday = 1}; /* 2025-01-01 */
    const struct tm *t = localtime(&now);
    if (t != NULL) today = *t;
    uint8_t date[3] = {bcd(today.tm_year), bcd(today.tm_mon + 1), bcd(today.tm_mday)};
    uint8_t hms[3] = {bcd(today.tm_hour), bcd(today.tm_min), bcd(today.tm_sec)};
    uint8_t type = 0x00; /* purchase */
    uint8_t amount[6], currency[2], country[2];
    uint8_t params[128];
    size_t p = put_tlv(params, 0x9C, &type, 1);
    p += put_tlv(params + p, 0x9F02, amount, from_hex("000000000100", amount)); /* 1.00 */
    p += put_tlv(params + p, 0x5F2A, currency, from_hex("0978", currency));
    p += put_tlv(params + p, 0x9A, date, sizeof date);
    p += put_tlv(params + p, 0x9F21, hms, sizeof hms);
    p += put_tlv(params + p, 0x9F1A, country, from_hex("0978", country));
    uint8_t kernel_id = 0x25;
    uint32_t len = (uint32_t)put_tlv(io, 0xDF09, &kernel_id, 1);
    len += (uint32_t)put_tlv(io + len, 0x7F11, params, p);

    rv = Kernel_Start_VELK_(io, &len);
    if (rv != VELK_OK) printf("Kernel_Start_VELK_ returned 0x%X\n", (unsigned)rv);
    return print_outcome(io, len) == 0 && rv == VELK_OK ? 0 : 1;
}
