/*
 * Endpoints: opening, shared regions, attributes, enabling, shutdown and close; the table of filter tags.
 */
#include "oxel_clksync.h"
#include "ruk__iputils.h"
#include "ruk_core.h"

#include <arpa/inet.h>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ifaddrs.h>
#include <net/if.h>
#include <new>
#include <sys/ioctl.h>
#include <sys/mman.h>

/* ------------------------------------------------------------------ regions */

extern "C" int map_region(const char *name, tov_handle_t handle, uintptr_t *addr, uintptr_t *len, uint32_t offset,
                          uint32_t length, int read_only)
{
    int rc = 0;
    const char *status = "";
    if (length == 0) {
        *addr = 0;
        *len = 0;
        status = "SKIP";
    } else {
        *addr = (uintptr_t)tov_mmap(nullptr, length, handle, (off_t)offset, read_only);
        *len = length;
        if (*addr == (uintptr_t)MAP_FAILED) {
            status = "FAILED";
            rc = EINVAL;
        }
    }
    if (__ruk_debug)
        ruk__debug_line("map_region", "map %-15s %-6s off=%12d len=%8d ptr=%p", name, status, (int)offset, (int)length,
                        (void *)*addr);
    return rc;
}

extern "C" void unmap_region(uintptr_t ptr, uintptr_t size)
{
    if (ptr != 0 && size != 0)
        tov_munmap((void *)ptr, size);
}

/* Touches every page, so that the first receive takes no page faults. */
extern "C" void prefault_mapped_kmem(uintptr_t base, uintptr_t len)
{
    for (uintptr_t step = 0; step < len; step += 4096)
        tov_ld8((const volatile uint8_t *)(base + step));
}

extern "C" void free_queues(struct ruk__ep *rep) { unmap_region(rep->rep_map.map_sendq, rep->rep_map.map_sendq_len); }

/* Releases all regions. The send queue goes twice, here and in free_queues(); the second call finds nothing. */
static void release_regions(struct ruk__ep *rep)
{
    const struct ruk__map *map = &rep->rep_map;
    free_queues(rep);
    unmap_region(map->map_sendq, map->map_sendq_len);
    unmap_region(map->map_recvq, map->map_recvq_len);
    unmap_region(map->map_sram, map->map_sram_len);
    unmap_region(map->map_zreq, map->map_zreq_len);
    unmap_region(map->map_kwindow, map->map_kwindow_len);
    unmap_region(map->map_kflow_window, map->map_kflow_window_len);
    unmap_region(map->map_send_compcnt, map->map_send_compcnt_len);
}

static int map_regions(struct ruk__ep *rep, const kz_get_copyblock_t *block)
{
    struct ruk__map *map = &rep->rep_map;
    tov_handle_t handle = rep->rep_handle;

    int rc = map_region("recv dataq", handle, &map->map_recvq, &map->map_recvq_len, block->recvq_offset,
                        block->recvq_len, 0);
    if (rc != 0)
        return rc;
    map->map_recvq_end = map->map_recvq + map->map_recvq_len;
    prefault_mapped_kmem(map->map_recvq, map->map_recvq_len);

    rc = map_region("send dataq", handle, &map->map_sendq, &map->map_sendq_len, block->sendq_offset, block->sendq_len,
                    0);
    if (rc == 0)
        rc = map_region("j6 ummap", handle, &map->map_sram, &map->map_sram_len, block->user_mmapped_sram_offset,
                        block->user_mmapped_sram_len, 0);
    if (rc == 0)
        rc = map_region("j6 requests", handle, &map->map_zreq, &map->map_zreq_len, block->user_mmapped_zreq_offset,
                        block->user_mmapped_zreq_len, 0);
    if (rc == 0)
        rc = map_region("kwindow", handle, &map->map_kwindow, &map->map_kwindow_len, block->kernel_window_offset,
                        block->kernel_window_len, 1);
    if (rc == 0)
        rc = map_region("flow", handle, &map->map_kflow_window, &map->map_kflow_window_len, block->flow_window_offset,
                        block->flow_window_len, 0);
    if (rc != 0)
        return rc;
    rep->rep_flow = (oxel_endpt_flow_t *)map->map_kflow_window;

    return map_region("j6 tx compvec", handle, &map->map_send_compcnt, &map->map_send_compcnt_len,
                      block->send_compcnt_offset, block->send_compcnt_len, 1);
}

/* ------------------------------------------------------------------ enabling */

extern "C" void initialize_queues(struct ruk__ep *rep)
{
    const struct ruk__map *map = &rep->rep_map;
    struct ruk__eventq *evq = &rep->rep_eventq;
    struct ruk__event_state *evs = &evq->evq_recvq_state;

    evq->evq_recvq_base = map->map_recvq;
    evq->evq_recvq_size = map->map_recvq_len;
    evq->evq_recvq_offset = 0;
    evq->evq_recvq_end = map->map_recvq + map->map_recvq_len;
    evq->evq_recvq_flow = 0;
    evs->evs_length = 0;
    evs->evs_length_pkts = 0;
    evs->evs_pkt_cnt = 0;
    _eventq_set_current(evs, map->map_recvq);
    evs->evs_pkt_cur = nullptr;

    evq->evq_flow = &rep->rep_flow->rx_flow;
    tov_st32(&evq->evq_flow->flow_desc, 0);
    tov_st32(&evq->evq_flow->flow_data, 0);
    evq->evq_flow_be64 = (uint64_t *)(map->map_sram + NUV_DOORBELL_OFFSET);

    rep->rep_inlinesend_threshold = 0;
    rep->rep_kwindow = (const kz_kernel_window_t *)map->map_kwindow;
}

extern "C" void sendbuf_init(struct ruk__sendbuf *sb, uintptr_t base, uint32_t length)
{
    sb->sb_base = base;
    sb->sb_length = length;
    sb->sb_head = 0;
    sb->sb_tail = 0;
    sb->sb_avail = length;
}

/* One record for each request that the driver lets the endpoint have in flight. */
static int alloc_requests(struct ruk__ep *rep)
{
    uint32_t sreqs_cnt = 0;
    int rc = tov_ioctl(rep->rep_handle, OXEL_GET_SREQS_CNT, &sreqs_cnt, sizeof sreqs_cnt);
    if (rc != 0)
        return rc;
    ruk_assert(sreqs_cnt >= 8, "ruk_open");
    ruk_assert(sreqs_cnt <= 64, "ruk_open");

    rep->rep_sreq_alloc = (struct ruk__request *)calloc(sreqs_cnt, sizeof(struct ruk__request));
    if (!rep->rep_sreq_alloc)
        return ENOMEM;
    for (uint32_t i = 0; i < sreqs_cnt; i++)
        rep->rep_sreq_alloc[i].req_num = (int32_t)i;
    return tov_mpool_init((char *)rep->rep_sreq_alloc, sreqs_cnt * sizeof(struct ruk__request),
                          sizeof(struct ruk__request), &rep->rep_sreq_pool);
}

static void init_send_channel(struct ruk__ep *rep)
{
    const struct ruk__map *map = &rep->rep_map;
    struct ruk__pioreq *pioreq = &rep->rep_pioreq;
    rep->rep_sreq_inflight = 0;
    STAILQ_INIT(&rep->rep_sreq_inflightq);
    sendbuf_init(&pioreq->pio_sb, map->map_sram, NUV_PIO_BYTES);
    pioreq->pio_req_db = (nuv_ureq_t *)map->map_zreq;
    pioreq->compl_done = (volatile uint16_t *)map->map_send_compcnt + rep->rep_epid;
    pioreq->tx_flow = &rep->rep_flow->tx_flow;
    tov_st32(&pioreq->tx_flow->flow_desc, 0);
}

static int setup_queues(struct ruk__ep *rep)
{
    int rc = tov_ioctl(rep->rep_handle, OXEL_ENABLE_ENDPT, nullptr, 0);
    if (rc != 0)
        return rc;
    kz_get_copyblock_t block = {};
    rc = tov_ioctl(rep->rep_handle, OXEL_GET_COPYBLOCK, &block, sizeof block);
    if (rc != 0)
        return rc;
    rc = map_regions(rep, &block);
    if (rc != 0)
        return rc;
    initialize_queues(rep);
    oxel_clksync_copy_nticks_params(&rep->rep_nticks, rep->rep_kwindow);
    sendbuf_init(&rep->rep_dmabuf, rep->rep_map.map_sendq, (uint32_t)rep->rep_map.map_sendq_len);
    rc = alloc_requests(rep);
    if (rc != 0)
        return rc;
    init_send_channel(rep);
    return 0;
}

extern "C" int enable_endpoint(struct ruk__ep *rep)
{
    ruk_assert(rep->rep_state == REP_STATE_ALLOC, "ruk_open");
    int rc = setup_queues(rep);
    if (rc != 0) {
        free(rep->rep_sreq_alloc);
        rep->rep_sreq_alloc = nullptr;
        release_regions(rep);
        _eventq_set_current(&rep->rep_eventq.evq_recvq_state, 0); /* nobody reads the ring that is gone */
        return rc;
    }
    tov_st32_rel((uint32_t *)&rep->rep_state, REP_STATE_OPEN);
    return 0;
}

/* ------------------------------------------------------------------ opening */

/* The IPv4 subnet of an interface address in host order, 0 when it has none. */
static uint32_t subnet_of(const struct ifaddrs *ifa)
{
    if (!ifa->ifa_addr || !ifa->ifa_netmask || ifa->ifa_addr->sa_family != AF_INET ||
        ifa->ifa_netmask->sa_family != AF_INET)
        return 0;
    const struct sockaddr_in *addr = (const struct sockaddr_in *)(const void *)ifa->ifa_addr;
    const struct sockaddr_in *mask = (const struct sockaddr_in *)(const void *)ifa->ifa_netmask;
    return ntohl(addr->sin_addr.s_addr & mask->sin_addr.s_addr);
}

[[noreturn]] static void exit_with(const char *what)
{
    perror(what);
    exit(1);
}

static bool on_adapter(tov_socket_t s, const char *ifname)
{
    static const uint8_t prefix[3] = {OXEL_MAC_PREFIX_0, OXEL_MAC_PREFIX_1, OXEL_MAC_PREFIX_2};
    struct ifreq request = {};
    strncpy(request.ifr_name, ifname, IFNAMSIZ - 1);
    if (tov_ioctl(s, SIOCGIFHWADDR, &request, sizeof request) != 0)
        exit_with("ioctl");
    return memcmp(request.ifr_hwaddr.sa_data, prefix, sizeof prefix) == 0;
}

extern "C" int krel_verify_ipsubnet(void)
{
    tov_socket_t s = tov_socket(AF_INET, SOCK_DGRAM, 0);
    if (s < 0)
        exit_with("socket");
    struct ifaddrs *list = nullptr;
    if (getifaddrs(&list) != 0)
        exit_with("getifaddrs");

    /* The list is private to this call: ifa_flags tells the kind, ifa_data holds the subnet. */
    enum : unsigned { NEITHER, ADAPTER, OTHER };
    for (struct ifaddrs *ifa = list; ifa; ifa = ifa->ifa_next) {
        bool is_ipv4 = ifa->ifa_addr && ifa->ifa_netmask && ifa->ifa_addr->sa_family == AF_INET &&
                       ifa->ifa_netmask->sa_family == AF_INET;
        uint32_t subnet = subnet_of(ifa);
        ifa->ifa_flags = NEITHER;
        ifa->ifa_data = (void *)(uintptr_t)subnet;
        if (is_ipv4) {
            bool adapter = on_adapter(s, ifa->ifa_name);
            if (subnet != 0)
                ifa->ifa_flags = adapter ? ADAPTER : OTHER;
        }
    }

    int result = 0;
    for (const struct ifaddrs *a = list; a; a = a->ifa_next) {
        if (a->ifa_flags != ADAPTER)
            continue;
        for (const struct ifaddrs *b = list; b; b = b->ifa_next)
            if (b != a && b->ifa_flags != NEITHER && b->ifa_data == a->ifa_data)
                result = -1;
    }
    tov_closesocket(s);
    freeifaddrs(list);
    return result;
}

static void check_ipsubnet(void)
{
    if (getenv("RUK_IP_ACCELERATION"))
        return;
    if (getenv("RUK_BYPASS_CHECK")) {
        if (__ruk_verbose)
            puts("Skipping IP subnet check");
        return;
    }
    if (krel_verify_ipsubnet() == -1) {
        fputs("RUK detected two or more IPs on the same subnet. This mode is not supported. Exiting.\n", stderr);
        exit(1);
    }
}

/* Asks an open socket; 0, ENXIO for a name that no interface has, or a negative errno value. */
static int query_interface_addr(tov_socket_t s, const char *ifname, struct in_addr *addr)
{
    alignas(struct ifreq) char buffer[2048];
    struct ifconf conf = {};
    conf.ifc_len = sizeof buffer;
    conf.ifc_buf = buffer;
    int rc = tov_ioctl(s, SIOCGIFCONF, &conf, sizeof conf);
    if (rc != 0)
        return -rc;
    size_t count = (size_t)conf.ifc_len / sizeof(struct ifreq);
    for (size_t i = 0; i < count; i++) {
        struct ifreq request = conf.ifc_req[i];
        if (strncmp(request.ifr_name, ifname, IFNAMSIZ) != 0)
            continue;
        rc = tov_ioctl(s, SIOCGIFADDR, &request, sizeof request);
        if (rc != 0)
            return -rc;
        struct sockaddr_in sin;
        memcpy(&sin, &request.ifr_addr, sizeof sin);
        *addr = sin.sin_addr;
        return 0;
    }
    return ENXIO;
}

extern "C" int iface_to_interface_addr(const char *ifname, struct in_addr *addr)
{
    tov_socket_t s = tov_socket(AF_INET, SOCK_DGRAM, 0);
    if (s < 0)
        return -errno;
    int rc = query_interface_addr(s, ifname, addr);
    tov_closesocket(s);
    return rc;
}

/* Opens the board's device file and claims endpoint number epid with it. */
static int claim_endpoint(int board, uint32_t epid, uint32_t type, tov_handle_t *handle_o, bool *opened)
{
    tov_handle_t handle;
    *opened = false;
    int rc = tov_open(board, (int)epid, &handle, TOV_PRODUCT);
    if (rc != 0)
        return rc;
    *opened = true;
    oxel_set_endpt_t claim = {(int32_t)epid, type};
    rc = tov_ioctl(handle, OXEL_SET_ENDPT, &claim, sizeof claim);
    if (rc != 0) {
        tov_close(handle);
        return rc;
    }
    *handle_o = handle;
    return 0;
}

extern "C" int open_tov_endpoint(int board, uint32_t *epid, tov_handle_t *handle_o)
{
    tov_handle_t any;
    int rc = tov_open_any_board(&any, TOV_PRODUCT);
    if (rc != 0)
        return rc;
    uint32_t max_endpts = 0;
    rc = tov_ioctl(any, OXEL_GET_MAX_ENDPTS, &max_endpts, sizeof max_endpts);
    tov_close(any);
    if (rc != 0)
        return rc;

    rc = ENODEV; /* an adapter without endpoints */
    for (uint32_t e = 0; e < max_endpts; e++) {
        bool opened;
        rc = claim_endpoint(board, e, OXEL_ES_RUK, handle_o, &opened);
        if (rc == 0) {
            *epid = e;
            return 0;
        }
        if (opened && rc != EBUSY)
            return rc;
    }
    return rc;
}

/* Builds the record; on failure the interface list is freed. */
static struct ruk__ep *alloc_endpoint(uint32_t ipaddr_be32, uint32_t board, struct tov_ifaddrs *mif,
                                      struct tov_ifaddrs *mif_addrs, int flags)
{
    struct ruk__ep *rep = (struct ruk__ep *)calloc(1, sizeof *rep);
    if (!rep) {
        tov_freeifaddrs(mif_addrs);
        return nullptr;
    }
    rep->rep_handle = -1;
    rep->rep_send_fd = -1;
    rep->rep_ipaddr_be32 = ipaddr_be32;
    rep->rep_unit = board;
    rep->rep_mif = mif;
    rep->rep_mif_addrs = mif_addrs;
    rep->rep_state = REP_STATE_ALLOC;
    pthread_mutex_init(&rep->rep_lock, nullptr);
    pthread_mutex_init(&rep->rep_rx_lock, nullptr);
    if (flags & RUK_OPEN_THREAD_SAFE) {
        rep->rep_lockp = &rep->rep_lock;
        rep->rep_rx_lockp = &rep->rep_rx_lock;
    }
    TAILQ_INIT(&rep->rep_chanq);
    TAILQ_INIT(&rep->rep_tag_uniq);
    TAILQ_INIT(&rep->rep_tag_filterq);
    TAILQ_INIT(&rep->rep_tag_delayq);
    STAILQ_INIT(&rep->rep_sreq_inflightq);
    rep->rep_timestamping_enabled = (flags & RUK_OPEN_HW_TIMESTAMPING) ? 1 : 0;
    rep->rep_routes = (struct rep_rtentry *)malloc(RUK_ROUTES_STEP * sizeof(struct rep_rtentry));
    rep->rep_max_routes = RUK_ROUTES_STEP;
    if (!rep->rep_routes) {
        ruk_close(rep);
        return nullptr;
    }
    return rep;
}

static int print_board_mac(struct ruk__ep *rep)
{
    oxel_get_nic_id_t id = {};
    id.board = rep->rep_unit;
    int rc = tov_ioctl(rep->rep_handle, OXEL_GET_NIC_ID, &id, sizeof id);
    if (rc != 0)
        return rc;
    char text[18];
    tov_nic_id_to_str(text, id.nic_id, sizeof text);
    printf("Board %d mac addr: %s\n", (int)rep->rep_unit, text);
    return 0;
}

static int read_driver_params(struct ruk__ep *rep)
{
    oxel_ruk_params_t params = {};
    int rc = tov_ioctl(rep->rep_handle, OXEL_GET_RUK_PARAMS, &params, sizeof params);
    if (rc != 0)
        return rc;
    rep->rep_dmasend_threshold = params.dmasend_threshold;
    rep->rep_recvq_size = params.recvq_size;
    tov_st32((uint32_t *)&rep->rep_recvq_filter_mode, params.recvq_filter_mode); /* a receiver may be reading it */
    return 0;
}

/* The kernel socket for sends on the kernel's path. */
static int open_send_socket(struct ruk__ep *rep)
{
    uint16_t port_be16 = 0;
    if (ruk__sockbind(rep->rep_ipaddr_be32, &port_be16, 0, &rep->rep_send_fd, 0) != 0)
        return errno;
    tov_socklen_t len = sizeof rep->rep_send_sin;
    if (tov_getsockname(rep->rep_send_fd, (struct sockaddr *)&rep->rep_send_sin, &len) != 0)
        return errno;
    return 0;
}

/* Everything between the record and a usable endpoint. */
static int start_endpoint(struct ruk__ep *rep, int flags)
{
    int rc = open_tov_endpoint((int)rep->rep_unit, &rep->rep_epid, &rep->rep_handle);
    if (rc == 0 && __ruk_verbose)
        rc = print_board_mac(rep);
    if (rc == 0)
        rc = read_driver_params(rep);
    if (rc == 0)
        rc = open_send_socket(rep);
    if (rc == 0 && !(flags & RUK_OPEN_DISABLED))
        rc = enable_endpoint(rep);
    return rc;
}

static void print_attempt(const struct in_addr *addr)
{
    if (!__ruk_verbose)
        return;
    uint32_t a = addr->s_addr;
    puts("RUK using RUK API");
    printf("Attempting to open NIC at %d.%d.%d.%d\n", ruk__ip_octet(a, 0), ruk__ip_octet(a, 1), ruk__ip_octet(a, 2),
           ruk__ip_octet(a, 3));
}

/* The host's adapter interfaces; ENODEV when there is none. */
static int list_interfaces(struct tov_ifaddrs **list)
{
    int count = 0;
    int rc = tov_getifaddrs(list, 1, &count);
    if (rc != 0)
        return rc;
    return *list ? 0 : ENODEV;
}

static struct tov_ifaddrs *find_interface(struct tov_ifaddrs *list, uint32_t ipaddr_be32)
{
    while (list && list->tov_ifa_ipaddr != ipaddr_be32)
        list = list->tov_ifa_next;
    return list;
}

/* The common end of both ways to open: record, claim, queues and routes. The interface list becomes the record's. */
static int open_on_board(const struct in_addr *addr, uint32_t board, struct tov_ifaddrs *mif,
                         struct tov_ifaddrs *mif_addrs, int flags, bool with_arista, ruk_device_t *dev_out)
{
    if (__ruk_verbose)
        printf("Attempting to open board %d\n", (int)board);
    struct ruk__ep *rep = alloc_endpoint(addr->s_addr, board, mif, mif_addrs, flags);
    if (!rep)
        return ENOMEM;
    int rc = start_endpoint(rep, flags);
    if (rc != 0) {
        ruk_close(rep);
        return rc;
    }
    if (with_arista)
        arista_init(rep);
    *dev_out = rep;
    return ruk__arp_init(rep);
}

extern "C" int ruk_open(const struct in_addr *interface_addr, int flags, ruk_device_t *dev_out)
{
    check_ipsubnet();
    if (!interface_addr || !dev_out)
        return EINVAL;
    if (ruk__api_version == 0) {
        fputs("RUK must be initialized with ruk_init()\n", stderr);
        return EINVAL;
    }
    show_banner();
    print_attempt(interface_addr);

    if (interface_addr->s_addr == 0)
        return ENODEV;
    struct tov_ifaddrs *list = nullptr;
    int rc = list_interfaces(&list);
    if (rc != 0)
        return rc;
    struct tov_ifaddrs *mif = find_interface(list, interface_addr->s_addr);
    if (!mif) {
        tov_freeifaddrs(list);
        return ENODEV;
    }
    return open_on_board(interface_addr, mif->tov_ifa_boardnum, mif, list, flags, true, dev_out);
}

extern "C" int ruk_open_if(const char *ifname, int flags, ruk_device_t *dev_out)
{
    if (!ifname || !dev_out)
        return EINVAL;
    struct in_addr addr = {};
    int rc = iface_to_interface_addr(ifname, &addr);
    if (rc != 0)
        return rc;
    return ruk_open(&addr, flags, dev_out);
}

/* The first adapter with that permanent MAC address; EINVAL when there is none. */
static int find_board_by_mac(const uint8_t *mac, uint32_t *board)
{
    struct tov_nic_info *nics = nullptr;
    int count = 0;
    int rc = tov_get_nicinfo(&nics, &count);
    if (rc != 0)
        return rc;
    uint64_t nic_id;
    tov_macaddr_to_nic_id(mac, &nic_id);
    rc = EINVAL;
    for (int i = 0; i < count && rc != 0; i++) {
        if (nics[i].nic_id == nic_id) {
            *board = nics[i].boardnum;
            rc = 0;
        }
    }
    tov_free_nicinfo(nics);
    return rc;
}

extern "C" int ruk_open_by_perm_mac(uint8_t *mac, const struct in_addr *interface_addr, int flags,
                                    ruk_device_t *dev_out)
{
    if (!mac || !interface_addr || !dev_out)
        return EINVAL;
    show_banner_by_mac();
    print_attempt(interface_addr);

    uint32_t board = 0;
    int rc = find_board_by_mac(mac, &board);
    if (rc != 0)
        return rc;
    struct tov_ifaddrs *list = nullptr;
    rc = list_interfaces(&list);
    if (rc != 0)
        return rc;
    struct tov_ifaddrs *mif = find_interface(list, interface_addr->s_addr); /* may be null */
    return open_on_board(interface_addr, board, mif, list, flags, false, dev_out);
}

/* ------------------------------------------------------------------ attributes */

extern "C" int ruk_device_get_attrs(ruk_device_t dev, struct ruk_device_attrs *attrs)
{
    ruk__ep_lock(dev);
    *attrs = {};
    attrs->recvq_filter_mode = dev->rep_recvq_filter_mode;
    attrs->recvq_size = dev->rep_recvq_size;
    attrs->hw_timestamping = dev->rep_timestamping_enabled;
    ruk__ep_unlock(dev);
    return 0;
}

/* Sends the attributes to the driver; with the endpoint lock held. */
static int send_attrs(struct ruk__ep *rep, const struct ruk_device_attrs *attrs)
{
    oxel_ruk_params_t params = {};
    params.dmasend_threshold = rep->rep_dmasend_threshold;
    params.recvq_size = attrs->recvq_size;
    params.recvq_filter_mode = attrs->recvq_filter_mode;
    return tov_ioctl(rep->rep_handle, OXEL_SET_RUK_PARAMS, &params, sizeof params);
}

extern "C" int ruk_device_set_attrs(ruk_device_t dev, struct ruk_device_attrs *attrs)
{
    int rc = 0;
    ruk__ep_lock(dev);
    tov_st32(&dev->rep_timestamping_enabled, attrs->hw_timestamping != 0); /* a receiver may be reading it */
    if (attrs->recvq_filter_mode != (uint32_t)dev->rep_recvq_filter_mode || dev->rep_state == REP_STATE_ALLOC)
        rc = send_attrs(dev, attrs);
    if (rc == 0) {
        rc = read_driver_params(dev);
        ruk_assert(rc == 0, "ruk_open");
    }
    ruk__ep_unlock(dev);
    return rc;
}

extern "C" int ruk_device_enable(ruk_device_t dev)
{
    ruk__ep_lock(dev);
    int rc = dev->rep_state == REP_STATE_ALLOC ? enable_endpoint(dev) : EINVAL;
    ruk__ep_unlock(dev);
    return rc;
}

extern "C" int ruk__open_soft(struct ruk__ep *rep, tov_handle_t *handle_o)
{
    tov_handle_t handle;
    bool opened;
    int rc = claim_endpoint((int)rep->rep_unit, rep->rep_epid, OXEL_ES_RUK_SOFT, &handle, &opened);
    if (rc != 0)
        return rc;
    uint32_t descriptor = (uint32_t)handle;
    rc = tov_ioctl(handle, OXEL_ATTACH_SOFT, &descriptor, sizeof descriptor);
    if (rc != 0) {
        tov_close(handle);
        return rc;
    }
    *handle_o = handle;
    return 0;
}

/* ------------------------------------------------------------------ shutdown and close */

extern "C" int ruk_shutdown(ruk_device_t dev, int how)
{
    if (!dev)
        return EINVAL;
    tov_st32(&dev->rep_shutdown, 1);
    return 0;
}

/* From here on receivers that find nothing leave. */
static void begin_close(struct ruk__ep *rep)
{
    ruk__use_word *word = ruk__use(rep);
    uint64_t use = __atomic_load_n(word, __ATOMIC_SEQ_CST), closing;
    do
        closing = ruk__use_of(REP_STATE_NEEDCLOSE, ruk__use_inuse(use));
    while (!__atomic_compare_exchange_n(word, &use, closing, false, __ATOMIC_SEQ_CST, __ATOMIC_SEQ_CST));
}

/*
 * Whether a receiver inside the endpoint takes the close over. The state is the token: the last receiver to leave moves
 * it from CLOSING back to NEEDCLOSE and closes.
 */
static bool defer_close(struct ruk__ep *rep)
{
    ruk__use_word *word = ruk__use(rep);
    uint64_t use = __atomic_load_n(word, __ATOMIC_SEQ_CST), deferred;
    do {
        if (ruk__use_inuse(use) == 0)
            return false;
        deferred = ruk__use_of(REP_STATE_CLOSING, ruk__use_inuse(use));
    } while (!__atomic_compare_exchange_n(word, &use, deferred, false, __ATOMIC_SEQ_CST, __ATOMIC_SEQ_CST));
    return true;
}

extern "C" int ruk_close(ruk_device_t dev)
{
    struct ruk__ep *rep = dev;
    arista_fini(rep);

    begin_close(rep);
    ruk__ep_rx_lock(rep);
    if (defer_close(rep)) {
        ruk__ep_rx_unlock(rep);
        return 0;
    }
    ruk__ep_lock(rep);
    ruk__unbind_all(rep);
    for (struct ruk__tag_entry *block : rep->rep_tag_table)
        free(block);
    tov_freeifaddrs(rep->rep_mif_addrs);
    tov_mpool_fini(rep->rep_sreq_pool);
    free(rep->rep_sreq_alloc);
    release_regions(rep);
    if (rep->rep_handle != -1)
        tov_close(rep->rep_handle);
    free(rep->rep_routes);
    if (rep->rep_send_fd != -1)
        tov_closesocket(rep->rep_send_fd);
    ruk__ep_unlock(rep);
    ruk__ep_rx_unlock(rep);
    pthread_mutex_destroy(&rep->rep_lock);
    pthread_mutex_destroy(&rep->rep_rx_lock);
    free(rep);
    return 0;
}

/* ------------------------------------------------------------------ filter tags */

/* A new block of entries for the free queue; false when the tag space or the memory is used up. */
static bool grow_tags(struct ruk__ep *rep)
{
    if (rep->rep_tag_cnt == RUK_TAG_MAX_BLOCKS)
        return false;
    struct ruk__tag_entry *block = (struct ruk__tag_entry *)calloc(RUK_TAG_BLOCK, sizeof *block);
    if (!block)
        return false;
    int b = rep->rep_tag_cnt;
    for (int i = 0; i < RUK_TAG_BLOCK; i++) {
        block[i].tage_nuv_tag = (uint16_t)(b * RUK_TAG_BLOCK + i);
        TAILQ_INSERT_TAIL(&rep->rep_tag_filterq, &block[i], tage_link);
    }
    rep->rep_tag_table[b] = block;
    __atomic_store_n(&rep->rep_tag_cnt, b + 1, __ATOMIC_RELEASE); /* the receive path looks without the lock */
    return true;
}

/* An entry off its queue, or null. */
static struct ruk__tag_entry *take_tag(struct ruk__ep *rep)
{
    struct ruk__tag_entry *entry = TAILQ_FIRST(&rep->rep_tag_delayq);
    if (entry && (int64_t)(tov_ld64(&rep->rep_num_packets) - entry->tage_recycle) > 0) {
        TAILQ_REMOVE(&rep->rep_tag_delayq, entry, tage_link);
        return entry;
    }
    if (TAILQ_EMPTY(&rep->rep_tag_filterq) && !grow_tags(rep))
        return nullptr;
    entry = TAILQ_FIRST(&rep->rep_tag_filterq);
    TAILQ_REMOVE(&rep->rep_tag_filterq, entry, tage_link);
    return entry;
}

extern "C" int ruk__get_tag_entry(struct ruk__ep *rep, uint32_t ipaddr_be32, uint16_t port_be16, uint32_t is_tcp,
                                  struct ruk__tag_entry **entry_o)
{
    struct ruk__tag_entry *entry = take_tag(rep);
    if (!entry)
        return TAILQ_EMPTY(&rep->rep_tag_delayq) ? ENOMEM : EAGAIN;

    if (ruk__ip_is_group(ipaddr_be32)) {
        uint8_t mac[6];
        ruk__group_to_macaddr(ipaddr_be32, mac);
        tov_macaddr_to_nic_id(mac, &entry->tage_nicid);
    } else if (rep->rep_mif) {
        entry->tage_nicid = rep->rep_mif->tov_ifa_nicid;
    }
    entry->tage_ip_addr = tov_be32(ipaddr_be32);
    entry->tage_udp_port = tov_be16(port_be16);
    tov_st16(&entry->tage_nuv_tag, (uint16_t)(entry->tage_nuv_tag & ~RUK_TAG_DELAYED));
    entry->tage_tcp = (uint8_t)is_tcp;
    *entry_o = entry;
    return 0;
}

extern "C" void ruk__put_tag_entry(struct ruk__ep *rep, struct ruk__tag_entry *entry)
{
    TAILQ_INSERT_TAIL(&rep->rep_tag_filterq, entry, tage_link);
}

extern "C" void ruk__delay_put_tag_entry(struct ruk__ep *rep, struct ruk__tag_entry *entry)
{
    entry->tage_channel = nullptr; /* out of use: nobody may meet a channel that is gone */
    int pending = ruk__eventq_count(&rep->rep_eventq);
    if (pending != 0) {
        entry->tage_recycle = tov_ld64(&rep->rep_num_packets) + (uint64_t)pending;
        tov_st16(&entry->tage_nuv_tag, (uint16_t)(entry->tage_nuv_tag | RUK_TAG_DELAYED));
        TAILQ_INSERT_TAIL(&rep->rep_tag_delayq, entry, tage_link);
        return;
    }
    TAILQ_INSERT_TAIL(&rep->rep_tag_filterq, entry, tage_link);
    TAILQ_CONCAT(&rep->rep_tag_filterq, &rep->rep_tag_delayq, tage_link);
}
