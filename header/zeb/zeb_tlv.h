/* TLV elements: the bodies of synchronisation and management messages.
 *
 * An element is a 4-byte header (length and type, both big-endian 16 bit) followed by its value. The length counts the
 * header and the value but not the padding. The next element starts at this element's start plus its length rounded up
 * to a multiple of 4. Layout and names are those of the kernel's TIPC configuration interface, so one source file
 * cannot include both this header and <linux/tipc_config.h>.
 *
 * Nothing here locks or allocates; every operation works on the caller's buffer alone. Walk a body that came from a
 * peer only while TLV_LIST_OK holds. */
#ifndef ZEB_TLV_H
#define ZEB_TLV_H

#include <arpa/inet.h>
#include <stdint.h>
#include <string.h>

#ifdef __cplusplus
extern "C" {
#endif

struct tlv_desc {
    uint16_t tlv_len;  /* header and value, big-endian */
    uint16_t tlv_type; /* zeb_msg_type_t, big-endian */
};

/* Cursor over a list of elements. */
struct tlv_list_desc {
    struct tlv_desc *tlv_ptr; /* current element */
    uint32_t tlv_space;       /* bytes from the current element to the end of the body */
};

#define TLV_ALIGNTO 4u

/* `len` rounded up to a multiple of 4. */
static inline uint32_t TLV_ALIGN(uint32_t len)
{
    return (len + (TLV_ALIGNTO - 1)) & ~(TLV_ALIGNTO - 1);
}

/* Length field of an element whose value has `len` bytes. */
static inline uint32_t TLV_LENGTH(uint32_t len)
{
    return (uint32_t)sizeof(struct tlv_desc) + len;
}

/* Bytes that an element whose value has `len` bytes takes in a body, padding included. */
static inline uint32_t TLV_SPACE(uint32_t len)
{
    return TLV_ALIGN(TLV_LENGTH(len));
}

/* Address of the value of an element. */
static inline void *TLV_DATA(const void *tlv)
{
    return (char *)(uintptr_t)tlv + sizeof(struct tlv_desc);
}

/* True when the element at `tlv` is 4-byte aligned, `space` holds at least a header, and the element's length does not
 * exceed `space`. A length below 4 passes: the reader must refuse it. */
static inline int TLV_OK(const void *tlv, uint16_t space)
{
    const struct tlv_desc *desc = (const struct tlv_desc *)tlv;
    return ((uintptr_t)tlv & (TLV_ALIGNTO - 1)) == 0 && space >= sizeof(struct tlv_desc) &&
           ntohs(desc->tlv_len) <= space;
}

/* Type of an element, host order. */
static inline uint16_t TLV_DATA_TYPE(const void *tlv)
{
    return ntohs(((const struct tlv_desc *)tlv)->tlv_type);
}

/* Number of value bytes of an element, without header and padding. */
static inline uint16_t TLV_DATA_LENGTH(const void *tlv)
{
    return (uint16_t)(ntohs(((const struct tlv_desc *)tlv)->tlv_len) - sizeof(struct tlv_desc));
}

/* Writes an element of `type` with `len` (0..65531) value bytes at `tlv`, which must be 4-byte aligned with space for
 * TLV_SPACE(len) bytes. The value is copied only when `len` is not 0 and `data` is not null; padding is not written.
 * Returns the element's size with padding, by which the caller advances. */
static inline uint32_t TLV_SET(void *tlv, uint16_t type, const void *data, uint16_t len)
{
    struct tlv_desc *desc = (struct tlv_desc *)tlv;
    desc->tlv_type = htons(type);
    desc->tlv_len = htons((uint16_t)TLV_LENGTH(len));
    if (len != 0 && data != NULL)
        memcpy(TLV_DATA(tlv), data, len);
    return TLV_SPACE(len);
}

/* Puts the cursor on the first element of the body `data` of `space` bytes. */
static inline void TLV_LIST_INIT(struct tlv_list_desc *list, void *data, uint32_t space)
{
    list->tlv_ptr = (struct tlv_desc *)data;
    list->tlv_space = space;
}

/* True when no bytes are left. */
static inline int TLV_LIST_EMPTY(const struct tlv_list_desc *list)
{
    return list->tlv_space == 0;
}

/* TLV_OK of the current element, with the low 16 bits of the remaining space. */
static inline int TLV_LIST_OK(const struct tlv_list_desc *list)
{
    return TLV_OK(list->tlv_ptr, (uint16_t)list->tlv_space);
}

static inline uint16_t TLV_LIST_DATA_TYPE(const struct tlv_list_desc *list)
{
    return TLV_DATA_TYPE(list->tlv_ptr);
}

static inline uint16_t TLV_LIST_DATA_LENGTH(const struct tlv_list_desc *list)
{
    return TLV_DATA_LENGTH(list->tlv_ptr);
}

static inline void *TLV_LIST_DATA(const struct tlv_list_desc *list)
{
    return TLV_DATA(list->tlv_ptr);
}

/* Moves the cursor to the next element. The step is computed in 16 bits, so it is 0 for a length of 0 or above 65532: a
 * reader must refuse such an element and not step over it. A last element without its padding ends the list. */
static inline void TLV_LIST_STEP(struct tlv_list_desc *list)
{
    uint16_t step = (uint16_t)TLV_ALIGN(ntohs(list->tlv_ptr->tlv_len));
    list->tlv_ptr = (struct tlv_desc *)(void *)((char *)list->tlv_ptr + step);
    list->tlv_space = list->tlv_space < step ? 0 : list->tlv_space - step;
}

#ifdef __cplusplus
}
#endif

#endif
