// The iteration over the elements of a body: it ends, and touches nothing outside.
#include <cstdlib>
#include <cstring>

#include "zeb_wire.h"

static void require(bool holds)
{
    if (!holds)
        abort();
}

static void iterate_as_the_library(uint8_t *body, uint32_t size)
{
    struct tlv_list_desc cursor;
    TLV_LIST_INIT(&cursor, body, size);
    zeb_tlv_item_t item;
    uint32_t steps = 0;
    while (zeb_tlv_next(&cursor, &item) == ZEB_TLV_ITEM) {
        require(item.value >= body && item.value + item.len <= body + size);
        uint32_t sum = 0;
        for (uint16_t i = 0; i < item.len; i++)
            sum += item.value[i];
        require(sum <= 255u * item.len);
        require(++steps <= size / sizeof(struct tlv_desc));
    }
}

// The macros alone, as a program may use them on a body that TLV_LIST_OK accepts.
static void iterate_as_a_program(uint8_t *body, uint32_t size)
{
    struct tlv_list_desc cursor;
    TLV_LIST_INIT(&cursor, body, size);
    for (uint32_t steps = 0; steps < size && !TLV_LIST_EMPTY(&cursor) && TLV_LIST_OK(&cursor); steps++) {
        const uint8_t *value = (const uint8_t *)TLV_LIST_DATA(&cursor);
        uint16_t len = ntohs(cursor.tlv_ptr->tlv_len);
        if (len < sizeof(struct tlv_desc))
            return;
        if (TLV_LIST_DATA_LENGTH(&cursor) != 0)
            require(value + TLV_LIST_DATA_LENGTH(&cursor) <= body + size);
        TLV_LIST_STEP(&cursor);
    }
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    if (size > 65535)
        return 0;
    uint8_t *body = (uint8_t *)malloc(size == 0 ? 1 : size); // of the exact size, so that an access outside is found
    if (size != 0)
        memcpy(body, data, size);
    iterate_as_the_library(body, (uint32_t)size);
    iterate_as_a_program(body, (uint32_t)size);
    free(body);
    return 0;
}
