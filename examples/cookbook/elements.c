/* A payload of elements (TLV): a receiver steps over those that it does not know, so new ones need no new version. */
#include <stdio.h>
#include <zeb/zeb_ext.h>
#include <zeb/zeb_tlv.h>

enum { ELEMENT_ID = 1, ELEMENT_TEXT = 2 };

static zeb_msg_t *new_alarm(uint32_t id, const char *text)
{
    uint16_t length = (uint16_t)strlen(text);
    zeb_msg_t *msg = zeb_msg_alloc((int)(TLV_SPACE(sizeof(id)) + TLV_SPACE(length)), 1, 0);
    uint8_t *next = msg->data;

    id = htonl(id);
    next += TLV_SET(next, ELEMENT_ID, &id, sizeof(id));
    (void)TLV_SET(next, ELEMENT_TEXT, text, length);
    return msg;
}

static void print_alarm(zeb_msg_t *msg)
{
    struct tlv_list_desc list;
    uint32_t id;

    TLV_LIST_INIT(&list, msg->data, zeb_msg_data_len(msg));
    while (!TLV_LIST_EMPTY(&list)) {
        if (!TLV_LIST_OK(&list) || ntohs(list.tlv_ptr->tlv_len) < TLV_LENGTH(0)) {
            puts("bad element");
            return;
        }
        if (TLV_LIST_DATA_TYPE(&list) == ELEMENT_ID && TLV_LIST_DATA_LENGTH(&list) == sizeof(id)) {
            memcpy(&id, TLV_LIST_DATA(&list), sizeof(id));
            printf("id %u\n", ntohl(id));
        } else if (TLV_LIST_DATA_TYPE(&list) == ELEMENT_TEXT) {
            printf("text %.*s\n", TLV_LIST_DATA_LENGTH(&list), (const char *)TLV_LIST_DATA(&list));
        }
        TLV_LIST_STEP(&list);
    }
}

int main(void)
{
    zeb_msg_t *msg = new_alarm(7, "fan 1");

    print_alarm(msg);
    msg->data[1] = 200; /* the length of the first element, past the end */
    print_alarm(msg);
    free(msg);
    return 0;
}
