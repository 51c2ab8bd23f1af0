/*
 * Adapter identity, the list of adapters, and the pool of fixed-size elements.
 */
#include "nuv_types.h"
#include "tov.h"

#include <errno.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

/* ------------------------------------------------------------------ adapter identity */

void tov_macaddr_to_nic_id(const uint8_t *macaddr, uint64_t *nic_id)
{
    uint64_t id = 0;
    for (int i = 0; i < 6; i++)
        id = id << 8 | macaddr[i];
    *nic_id = id;
}

void tov_nic_id_to_macaddr(uint64_t nic_id, uint8_t *macaddr)
{
    for (int i = 5; i >= 0; i--) {
        macaddr[i] = static_cast<uint8_t>(nic_id);
        nic_id >>= 8;
    }
}

void tov_nic_id_to_str(char *str, uint64_t nic_id, uint32_t strlen)
{
    if (strlen == 0)
        return;

    uint8_t mac[6];
    tov_nic_id_to_macaddr(nic_id, mac);
    snprintf(str, strlen, "%02x:%02x:%02x:%02x:%02x:%02x", mac[0], mac[1], mac[2], mac[3], mac[4], mac[5]);
    str[strlen - 1] = '\0';
}

/* ------------------------------------------------------------------ list of adapters */

static int get_board(tov_handle_t fd, uint32_t board, struct tov_nic_info *info)
{
    oxel_get_nic_id_t id = {board, 0, 0};
    uint32_t type = board;
    uint32_t max_endpts = 0;
    uint32_t link = board;

    int rc = tov_ioctl(fd, OXEL_GET_NIC_ID, &id, sizeof id);
    if (rc == 0)
        rc = tov_ioctl(fd, OXEL_GET_NIC_TYPE, &type, sizeof type);
    if (rc == 0)
        rc = tov_ioctl(fd, OXEL_GET_MAX_ENDPTS, &max_endpts, sizeof max_endpts);
    if (rc == 0)
        rc = tov_ioctl(fd, OXEL_GET_LINK_STATE, &link, sizeof link);
    if (rc)
        return rc;

    /* Older drivers do not know the address in use. */
    oxel_get_nic_id_t current = {board, 0, 0};
    if (tov_ioctl(fd, OXEL_GET_CURR_NIC_ID, &current, sizeof current))
        current.nic_id = id.nic_id;

    info->boardnum = board;
    info->nic_type = type;
    info->nic_id = id.nic_id;
    info->nic_max_endpoints = max_endpts;
    info->nic_link_state = link & 1;
    info->curr_nic_id = current.nic_id;
    return 0;
}

int tov_get_nicinfo(struct tov_nic_info **ninfo_o, int *num_o)
{
    tov_handle_t fd;
    int rc = tov_open_any_board(&fd, TOV_PRODUCT);
    if (rc)
        return rc;

    struct tov_nic_info *list = nullptr;
    uint32_t num = 0;
    rc = tov_ioctl(fd, OXEL_GET_BOARD_CNT, &num, sizeof num);
    if (rc == 0 && num > 0) {
        list = static_cast<struct tov_nic_info *>(calloc(num, sizeof *list));
        if (!list)
            rc = ENOMEM;
    }
    for (uint32_t i = 0; rc == 0 && i < num; i++)
        rc = get_board(fd, i, &list[i]);
    tov_close(fd);

    if (rc) {
        free(list);
        return rc;
    }
    *ninfo_o = list;
    *num_o = static_cast<int>(num);
    return 0;
}

void tov_free_nicinfo(struct tov_nic_info *ninfo) { free(ninfo); }

/* ------------------------------------------------------------------ memory pool */

/* The link in a free element's first word; elements need no alignment. */
static void set_link(char *elem, char *next) { memcpy(elem, &next, sizeof next); }

int tov_mpool_init(char *base, size_t size, size_t elem_sz, struct tov_mpool **pool)
{
    struct tov_mpool *p = static_cast<struct tov_mpool *>(malloc(sizeof *p));
    if (!p)
        return ENOMEM;

    size_t n = size / elem_sz;
    p->base = base;
    p->size = size;
    p->elem_next = base;
    p->elem_sz = elem_sz;
    p->elem_avail = static_cast<int>(n);
    for (size_t k = 0; k < n; k++)
        set_link(base + k * elem_sz, k + 1 < n ? base + (k + 1) * elem_sz : nullptr);
    *pool = p;
    return 0;
}

void *tov_mpool_alloc(struct tov_mpool *pool) { return tov_mpool_take(pool); }

void tov_mpool_free(struct tov_mpool *pool, void *elem) { tov_mpool_put(pool, elem); }

int tov_mpool_isempty(struct tov_mpool *pool) { return pool->elem_avail == 0; }

void tov_mpool_fini(struct tov_mpool *pool) { free(pool); }
