// SPDX-License-Identifier: Apache-2.0
/*
 * TLV tree editing library: creates, finds, deletes, modifies and replaces
 * BER-TLV elements at any depth of a tree held in a caller-owned buffer,
 * keeping every enclosing length field correct. Stricter than the kernel's
 * codec: tags are validated when written and the 83 length form is supported
 * (lengths below 16,777,216).
 *
 * A tree whose nodes do not each lie inside their parent, or that nests
 * deeper than 48 levels, is malformed: every editing operation checks the
 * whole tree (source and destination) first and refuses a malformed one with
 * nothing changed (0, or 1 from tlv_move_, or the unchanged size from
 * tlv_delete_).
 *
 * No operation knows the capacity of the buffer it enlarges: the caller
 * reserves room for the worst-case growth below plus one spare byte. With
 * E(T, L) = tag size of T + length-field size of L + L (the element written),
 * the growth of the tree at pTlvData (or pTlvDstData) is at most:
 *   tlv_new_        E(T, L) bytes written (a fresh element, no tree)
 *   tlv_add_child_  E(T, L) + 4            (the parent's length field grows)
 *   tlv_modify_     L + 4 + 3 * 47 = L + 145 (the node, and the length
 *                   field of each of at most 47 enclosing nodes)
 *   tlv_replace_    L + 145                (modify or add)
 *   tlv_move_       S + 142, S the total size of the source element copied
 *   tlv_batch_move_ the sum of S + 142 over the source's children, S the
 *                   size of the first element in the source with the child's
 *                   tag (at most children * (source size + 142))
 *   tlv_delete_     none (the tree shrinks)
 * Not reentrant: module state spans one delete or modify, or one child
 * iteration.
 */
#ifndef KN_TLV_H
#define KN_TLV_H

#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

typedef uint8_t u8;
typedef uint8_t *pu8;
typedef uint32_t u32;

extern pu8 p_tlv_src;
extern u32 p_tlv_total_size;
extern u32 g_composite_v_length;

u32 tlv_new_(pu8 pTlvData, u32 T, u32 L, const u8 *pV);
u32 tlv_get_t_(const u8 *pTlvData);
u32 tlv_get_t_len_(const u8 *pTlvData);
u32 tlv_get_l_(const u8 *pTlvData);
u32 tlv_get_l_len_(const u8 *pTlvData);
pu8 tlv_get_v_(pu8 pTlvData);
u32 tlv_get_node_l_(const u8 *pTlvData);
u8 tlv_is_composite_(const u8 *pTlvData);
u32 tlv_add_child_(pu8 pTlvData, u32 T, u32 L, const u8 *pV);
pu8 tlv_find_(pu8 pTlvData, u32 T);
u32 tlv_delete_(pu8 pTlvData, u32 T);
u32 tlv_modify_(pu8 pTlvData, u32 T, u32 L, const u8 *pV);
u32 tlv_replace_(pu8 pTlvData, u32 T, u32 L, const u8 *pV);
u32 tlv_move_(pu8 pTlvData, pu8 pTlvDstData, u32 T);
pu8 tlv_get_first_child_(pu8 pTlvData);
pu8 tlv_get_next_child_(pu8 pTlvData);
u32 tlv_batch_move_(pu8 pTlvData, pu8 pTlvDstData);

#ifdef __cplusplus
}
#endif

#endif /* KN_TLV_H */
