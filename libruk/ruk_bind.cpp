/*
 * Channels: port binding, adapter filters, multicast membership, unbinding.
 */
#include "ruk__iputils.h"
#include "ruk_core.h"

#include <arpa/inet.h>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <netinet/in.h>

/* ------------------------------------------------------------------ kernel socket */

static int set_flag_option(tov_socket_t s, int option)
{
    int on = 1;
    return tov_setsockopt(s, SOL_SOCKET, option, &on, sizeof on);
}

/* The options that the bind flags ask for; the result of the first call that fails. */
static int set_bind_options(tov_socket_t s, int flags)
{
    int rc = 0;
    if (flags & RUK_BIND_REUSE) {
        rc = set_flag_option(s, SO_REUSEADDR);
        if (rc == 0)
            rc = set_flag_option(s, SO_REUSEPORT);
    }
    if (rc == 0 && (flags & RUK_BIND_BROADCAST))
        rc = set_flag_option(s, SO_BROADCAST);
    return rc;
}

/* Closes a socket that did not come up; errno stays what it was, the caller may still ask for it. */
static int give_up_socket(tov_socket_t s, int result)
{
    int cause = errno;
    tov_closesocket(s);
    errno = cause;
    return result;
}

extern "C" int ruk__sockbind(uint32_t ipaddr_be32, uint16_t *port_be16, int flags, int *fd_o, int is_tcp)
{
    struct sockaddr_in sin = {};
    sin.sin_family = AF_INET;
    sin.sin_port = *port_be16;
    sin.sin_addr.s_addr = ipaddr_be32;

    tov_socket_t s = tov_socket(AF_INET, is_tcp ? SOCK_STREAM : SOCK_DGRAM, 0);
    if (s < 0)
        return 0; /* the channel does without a kernel socket */

    int rc = is_tcp ? 0 : set_bind_options(s, flags);
    if (rc != 0)
        return give_up_socket(s, rc);
    if (tov_bind(s, (const struct sockaddr *)&sin, sizeof sin) != 0)
        return give_up_socket(s, errno); /* 0 without a cause: the channel does without a socket then, too */
    tov_socklen_t len = sizeof sin;
    rc = tov_getsockname(s, (struct sockaddr *)&sin, &len);
    if (rc != 0)
        return give_up_socket(s, rc);
    *port_be16 = sin.sin_port;
    *fd_o = s;
    return 0;
}

/* ------------------------------------------------------------------ adapter filters */

extern "C" int ruk__filter_op(struct ruk__ep *rep, int op, struct ruk__tag_entry *entry)
{
    const bool add = op == 1;
    oxel_rx_filter_t filter = {};
    filter.ip_addr = entry->tage_ip_addr;
    filter.port = entry->tage_udp_port;
    filter.vlan = tov_be16(entry->tage_channel->ch_vlan_be16);
    filter.tag = entry->tage_nuv_tag;
    filter.remove = !add;
    filter.kernel = add && (entry->tage_bindflags & RUK_BIND_KERNEL);
    filter.tcp = entry->tage_tcp;
    int rc = tov_ioctl(rep->rep_handle, OXEL_RX_FILTER, &filter, sizeof filter);
    if (rc != 0) {
        fprintf(stderr, "%s ip %x, port %x to tag %d entry is %p : FAILED with return value %d\n",
                add ? "filter-add" : "filter-del", filter.ip_addr, filter.port, filter.tag, (void *)entry, rc);
        fflush(stdout);
    }
    return rc;
}

/* A filter for a tag of the caller's: remove 0 or 1. */
static int change_filter(ruk_device_t rep, const char *what, int ip_proto, uint16_t vlan_be16, uint32_t dst_ip_be32,
                         uint16_t dst_port_be16, uint16_t tag, uint8_t remove, uint8_t kernel)
{
    oxel_rx_filter_t filter = {};
    switch (ip_proto) {
    case RUK_IPPROTO_UDP:
        filter.tcp = OXEL_FILTER_UDP;
        break;
    case RUK_IPPROTO_TCP:
        filter.tcp = OXEL_FILTER_TCP;
        break;
    case RUK_IPPROTO_KEYFRAME:
        filter.tcp = OXEL_FILTER_IP253;
        break;
    default:
        return EINVAL;
    }
    filter.ip_addr = tov_be32(dst_ip_be32);
    filter.port = tov_be16(dst_port_be16);
    filter.vlan = tov_be16(vlan_be16);
    filter.tag = tag;
    filter.remove = remove;
    filter.kernel = kernel;
    int rc = tov_ioctl(rep->rep_handle, OXEL_RX_FILTER, &filter, sizeof filter);
    if (rc != 0) {
        /* Address and port as the caller gave them, in network order. */
        fprintf(stderr, "%s ip=%x,port=%d: FAILED with return value %d\n", what, dst_ip_be32, dst_port_be16, rc);
        fflush(stdout);
    }
    return rc;
}

extern "C" int ruk_filter_add(ruk_device_t rep, int ip_proto, uint16_t vlan_be16, uint32_t dst_ip_be32,
                              uint16_t dst_port_be16, uint16_t tag, int flags)
{
    return change_filter(rep, "filter-add", ip_proto, vlan_be16, dst_ip_be32, dst_port_be16, tag, 0,
                         (flags & RUK_BIND_KERNEL) != 0);
}

extern "C" int ruk_filter_del(ruk_device_t rep, int ip_proto, uint16_t vlan_be16, uint32_t dst_ip_be32,
                              uint16_t dst_port_be16, uint16_t tag)
{
    return change_filter(rep, "filter-del", ip_proto, vlan_be16, dst_ip_be32, dst_port_be16, tag, 1, 0);
}

extern "C" int ruk_set_filter_mode(ruk_device_t rep, enum ruk_filter_mode mode)
{
    uint32_t value = (uint32_t)mode;
    ruk__ep_lock(rep);
    int rc = tov_ioctl(rep->rep_handle, OXEL_SET_FILTER_MODE, &value, sizeof value);
    if (rc == 0)
        tov_st32((uint32_t *)&rep->rep_recvq_filter_mode, value); /* a receiver may be reading it */
    ruk__ep_unlock(rep);
    return rc;
}

/* ------------------------------------------------------------------ binding */

/* What a bind has taken so far. */
struct bind_state {
    uint32_t ipaddr_be32;
    uint16_t port_be16;
    int flags;
    int fd;
    struct ruk__tag_entry *uni;
    struct ruk__tag_entry *bc;
    struct ruk__tag_entry *shared; /* entry that another channel owns for this address and port */
    struct ruk__channel *chan;
};

/* The interface with that address on the endpoint's own adapter, or null. */
static struct tov_ifaddrs *find_bind_interface(const struct ruk__ep *rep, uint32_t ipaddr_be32)
{
    if (!rep->rep_mif)
        return nullptr;
    struct tov_ifaddrs *mif = rep->rep_mif_addrs;
    while (mif && (mif->tov_ifa_ipaddr != ipaddr_be32 || mif->tov_ifa_boardnum != rep->rep_mif->tov_ifa_boardnum))
        mif = mif->tov_ifa_next;
    return mif;
}

/* The port is compared as the caller gave it: one beyond 16 bits shares with nobody. */
static struct ruk__tag_entry *find_shared_entry(struct ruk__ep *rep, uint32_t ipaddr_be32, int port)
{
    struct ruk__tag_entry *entry;
    TAILQ_FOREACH(entry, &rep->rep_tag_uniq, tage_link)
    {
        if (entry->tage_ip_addr == tov_be32(ipaddr_be32) && entry->tage_udp_port == port)
            return entry;
    }
    return nullptr;
}

/* A tag entry for a destination of the new channel, on the endpoint's unicast queue. */
static int take_uni_entry(struct ruk__ep *rep, const struct bind_state *b, uint32_t dst_be32,
                          struct ruk__tag_entry **entry_o)
{
    int rc = ruk__get_tag_entry(rep, dst_be32, b->port_be16, 0, entry_o);
    if (rc != 0)
        return rc;
    TAILQ_INSERT_TAIL(&rep->rep_tag_uniq, *entry_o, tage_link);
    (*entry_o)->tage_bindflags = (uint16_t)b->flags;
    return 0;
}

/* Kernel socket and tag entries of a datagram channel. */
static int reserve_port(struct ruk__ep *rep, struct bind_state *b, int port)
{
    if (!(b->flags & RUK_BIND_NO_UNICAST) && port != 0) {
        b->shared = find_shared_entry(rep, b->ipaddr_be32, port);
        if (b->shared)
            b->flags |= RUK_BIND_NO_UNICAST;
    }
    int rc = ruk__sockbind(b->ipaddr_be32, &b->port_be16, b->flags, &b->fd, 0);
    if (rc == 0 && !(b->flags & RUK_BIND_NO_UNICAST))
        rc = take_uni_entry(rep, b, b->ipaddr_be32, &b->uni);
    if (rc == 0 && (b->flags & RUK_BIND_BROADCAST))
        rc = take_uni_entry(rep, b, RUK_BROADCAST_ADDR, &b->bc);
    return rc;
}

static struct ruk__channel *alloc_channel(struct ruk__ep *rep, const struct bind_state *b, struct tov_ifaddrs *mif,
                                          void *context)
{
    struct ruk__channel *chan = (struct ruk__channel *)calloc(1, sizeof *chan);
    if (!chan)
        return nullptr;
    chan->ch_rep = rep;
    chan->ch_ucontext = context;
    chan->ch_ipaddr_be32 = b->ipaddr_be32;
    chan->ch_port_be16 = b->port_be16;
    chan->ch_fd = b->fd;
    chan->ch_vlan_be16 = tov_get_vlan_tag(mif->tov_ifa_name);
    chan->ch_mif = mif;
    chan->ch_bindflags = (uint32_t)b->flags;
    for (struct ruk__send_queue &queue : chan->ch_sendhandleq)
        TAILQ_INIT(&queue);
    TAILQ_INIT(&chan->ch_tag_multiq);
    TAILQ_INIT(&chan->ch_mreq_blocked);
    return chan;
}

/* Installs an entry's filter for the channel and hands the entry to it. */
static int install_entry(struct ruk__channel *chan, struct ruk__tag_entry *entry, struct ruk__tag_entry **owner)
{
    if (!entry)
        return 0;
    entry->tage_channel = chan;
    int rc = ruk__filter_op(chan->ch_rep, 1, entry);
    if (rc == 0)
        *owner = entry;
    return rc;
}

/* Gives back what a failed bind has taken. The entries stay on the unicast queue as well. */
static void undo_bind(struct ruk__ep *rep, const struct bind_state *b)
{
    if (b->fd != -1)
        tov_closesocket(b->fd);
    struct ruk__tag_entry *const taken[] = {b->bc, b->uni};
    for (struct ruk__tag_entry *entry : taken) {
        if (!entry)
            continue;
        if (entry->tage_channel) {
            ruk__filter_op(rep, 0, entry);
            ruk__delay_put_tag_entry(rep, entry);
        } else {
            ruk__put_tag_entry(rep, entry);
        }
    }
    free(b->chan);
}

extern "C" int ruk__bind(ruk_device_t rep, uint32_t ipaddr_be32, int flags, int port, void *context,
                         ruk_channel_t *handle_out, int is_tcp)
{
    if (!rep)
        return EINVAL;
    struct bind_state b = {};
    b.ipaddr_be32 = ipaddr_be32;
    b.port_be16 = tov_be16((uint16_t)port);
    b.flags = flags;
    b.fd = -1;

    ruk__ep_lock(rep);
    struct tov_ifaddrs *mif = find_bind_interface(rep, ipaddr_be32);
    if (!mif)
        return EINVAL; /* the lock stays held */

    int rc = is_tcp ? 0 : reserve_port(rep, &b, port);
    if (rc == 0) {
        b.chan = alloc_channel(rep, &b, mif, context);
        if (!b.chan)
            rc = ENOMEM;
    }
    if (rc == 0)
        rc = install_entry(b.chan, b.uni, &b.chan->ch_uni_entry);
    if (rc == 0)
        rc = install_entry(b.chan, b.bc, &b.chan->ch_bc_entry);
    if (rc != 0) {
        undo_bind(rep, &b);
        ruk__ep_unlock(rep);
        return rc;
    }

    TAILQ_INSERT_TAIL(&rep->rep_chanq, b.chan, ch_link);
    b.chan->ch_deferred_uni_entry = b.shared;
    *handle_out = b.chan;
    ruk__ep_unlock(rep);
    return 0;
}

extern "C" int ruk_bind(ruk_device_t dev, int flags, int port, void *context, ruk_channel_t *handle_out)
{
    if (!dev)
        return EINVAL;
    return ruk__bind(dev, dev->rep_ipaddr_be32, flags, port, context, handle_out, 0);
}

extern "C" int ruk_bind_addr(ruk_device_t rep, const struct in_addr *interface_addr, int flags, int port, void *context,
                             ruk_channel_t *handle_out)
{
    if (!interface_addr)
        return EINVAL;
    return ruk__bind(rep, interface_addr->s_addr, flags, port, context, handle_out, 0);
}

extern "C" int ruk_getaddress(ruk_channel_t ch, struct sockaddr_in *sin)
{
    if (!ch)
        return EINVAL;
    sin->sin_family = AF_INET;
    sin->sin_port = ch->ch_port_be16;
    sin->sin_addr.s_addr = ch->ch_ipaddr_be32;
    return 0;
}

/* ------------------------------------------------------------------ multicast */

static bool valid_group(const struct in_addr *addr)
{
    return addr && addr->s_addr != 0 && ruk__ip_is_group(addr->s_addr);
}

/* One membership of the channel's kernel socket, from any source (null) or from one. */
static int change_membership(struct ruk__channel *ch, uint32_t group_be32, const struct in_addr *src, int any_option,
                             int source_option)
{
    if (src) {
        struct ip_mreq_source mreq = {};
        mreq.imr_multiaddr.s_addr = group_be32;
        mreq.imr_interface.s_addr = ch->ch_ipaddr_be32;
        mreq.imr_sourceaddr = *src;
        return tov_setsockopt(ch->ch_fd, IPPROTO_IP, source_option, &mreq, sizeof mreq);
    }
    struct ip_mreq mreq = {};
    mreq.imr_multiaddr.s_addr = group_be32;
    mreq.imr_interface.s_addr = ch->ch_ipaddr_be32;
    return tov_setsockopt(ch->ch_fd, IPPROTO_IP, any_option, &mreq, sizeof mreq);
}

/*
 * The first entry of the channel for the group; with check_source also for the stored source, which is compared
 * as a number with src.
 */
static struct ruk__tag_entry *find_multi_entry(struct ruk__channel *ch, uint32_t group_be32, bool check_source,
                                               uint32_t src)
{
    struct ruk__tag_entry *entry;
    TAILQ_FOREACH(entry, &ch->ch_tag_multiq, tage_link)
    {
        if (entry->tage_udp_port == tov_be16(ch->ch_port_be16) && entry->tage_ip_addr == tov_be32(group_be32) &&
            (!check_source || entry->tage_src_ip_addr == src))
            return entry;
    }
    return nullptr;
}

/* Takes the entry, the kernel's membership and the filter; with the endpoint lock held. */
static int join_locked(struct ruk__channel *ch, uint32_t group_be32, const struct in_addr *src)
{
    struct ruk__ep *rep = ch->ch_rep;

    /* 1. A second join. The source is compared in network order: equal only when it reads the same in both. */
    struct ruk__tag_entry *entry = find_multi_entry(ch, group_be32, src != nullptr, src ? src->s_addr : 0);
    if (entry) {
        ruk__put_tag_entry(rep, entry); /* it stays the channel's and in the adapter as well */
        return EEXIST;
    }

    /* 2. A tag entry. */
    int rc = ruk__get_tag_entry(rep, group_be32, ch->ch_port_be16, 0, &entry);
    if (rc != 0)
        return rc;
    entry->tage_bindflags = (uint16_t)ch->ch_bindflags;
    if (src) {
        entry->tage_src_ip_addr = tov_be32(src->s_addr);
        entry->tage_src_ip_port = 0;
    }

    /* 3. The kernel's membership. */
    if (change_membership(ch, group_be32, src, IP_ADD_MEMBERSHIP, IP_ADD_SOURCE_MEMBERSHIP) != 0) {
        rc = errno;
        if (rc != 0)
            ruk__put_tag_entry(rep, entry);
        return rc;
    }

    /* 4. The adapter's filter. */
    entry->tage_channel = ch;
    TAILQ_INSERT_TAIL(&ch->ch_tag_multiq, entry, tage_link);
    rc = ruk__filter_op(rep, 1, entry);
    if (rc != 0) {
        TAILQ_REMOVE(&ch->ch_tag_multiq, entry, tage_link);
        change_membership(ch, group_be32, src, IP_DROP_MEMBERSHIP, IP_DROP_SOURCE_MEMBERSHIP);
        entry->tage_channel = nullptr;
        ruk__put_tag_entry(rep, entry);
    }
    return rc;
}

static int join(struct ruk__channel *ch, const struct in_addr *addr, const struct in_addr *src)
{
    ruk__ep_lock(ch->ch_rep);
    int rc = join_locked(ch, addr->s_addr, src);
    ruk__ep_unlock(ch->ch_rep);
    return rc;
}

extern "C" int ruk_mcast_join(ruk_channel_t ch, const struct in_addr *addr, void *unused)
{
    if (!ch || !valid_group(addr))
        return EINVAL;
    return join(ch, addr, nullptr);
}

extern "C" int ruk_mcast_join_source(ruk_channel_t ch, const struct in_addr *addr, const struct in_addr *src)
{
    if (!ch || !valid_group(addr) || !src)
        return EINVAL;
    return join(ch, addr, src);
}

extern "C" void entry_release_multi(struct ruk__tag_entry *entry)
{
    struct ruk__channel *ch = entry->tage_channel;
    if (change_membership(ch, tov_be32(entry->tage_ip_addr), nullptr, IP_DROP_MEMBERSHIP, 0) != 0)
        fprintf(stderr, "Ignoring error from IP_MULTICAST_DROP_MEMBERSHIP: %s\n", strerror(errno));

    int rc = ruk__filter_op(ch->ch_rep, 0, entry);
    if (rc != 0) {
        printf("ruk__filter_op delete returns %d\n", rc);
        ruk__assertion_failed("rc == 0", 71, "ruk_bind"); /* the line that users' scripts look for */
    }
    TAILQ_REMOVE(&ch->ch_tag_multiq, entry, tage_link);
    ruk__delay_put_tag_entry(ch->ch_rep, entry);
}

/*
 * The same for an entry of the channel's queue. One that was joined twice is met here again after its release, when
 * it has forgotten its channel: it takes the full way once more, and the adapter refuses the removal.
 */
static void release_multi_of(struct ruk__channel *ch, struct ruk__tag_entry *entry)
{
    if (!entry->tage_channel)
        entry->tage_channel = ch;
    entry_release_multi(entry);
}

/* Releases the channel's first entry for the group, and for the source when one is given (host order). */
static int leave(struct ruk__channel *ch, uint32_t group_be32, bool check_source, uint32_t src)
{
    int rc = EADDRNOTAVAIL;
    ruk__ep_lock(ch->ch_rep);
    struct ruk__tag_entry *entry = find_multi_entry(ch, group_be32, check_source, src);
    if (entry) {
        release_multi_of(ch, entry);
        rc = 0;
    }
    ruk__ep_unlock(ch->ch_rep);
    return rc;
}

extern "C" int ruk_mcast_leave(ruk_channel_t ch, const struct in_addr *addr)
{
    if (!ch || !valid_group(addr))
        return EINVAL;
    return leave(ch, addr->s_addr, false, 0);
}

extern "C" int ruk_mcast_leave_source(ruk_channel_t ch, const struct in_addr *addr, const struct in_addr *src)
{
    if (!ch || !valid_group(addr) || src->s_addr == 0)
        return EINVAL;
    return leave(ch, addr->s_addr, true, tov_be32(src->s_addr));
}

/* The kernel's record for a source of a group; false when an argument is not valid. */
static bool make_source_request(ruk_channel_t ch, const struct in_addr *join_addr, const struct in_addr *block_addr,
                                struct ip_mreq_source *mreq)
{
    if (!ch || !block_addr || block_addr->s_addr == 0 || !valid_group(join_addr))
        return false;
    *mreq = {};
    mreq->imr_multiaddr = *join_addr;
    mreq->imr_interface.s_addr = ch->ch_ipaddr_be32;
    mreq->imr_sourceaddr = *block_addr;
    return true;
}

extern "C" int ruk_mcast_block_source(ruk_channel_t ch, const struct in_addr *join_addr,
                                      const struct in_addr *block_addr)
{
    struct ip_mreq_source mreq;
    if (!make_source_request(ch, join_addr, block_addr, &mreq))
        return EINVAL;
    /* The record comes first: a block that the kernel has taken on could not be told of without one. */
    struct ruk__mreq_blocked *blocked = (struct ruk__mreq_blocked *)calloc(1, sizeof *blocked);
    if (!blocked)
        return ENOMEM;
    int rc = tov_setsockopt(ch->ch_fd, IPPROTO_IP, IP_BLOCK_SOURCE, &mreq, sizeof mreq);
    if (rc != 0) {
        free(blocked);
        return rc;
    }
    blocked->data = mreq;
    TAILQ_INSERT_TAIL(&ch->ch_mreq_blocked, blocked, mreq_link);
    return 0;
}

extern "C" int ruk_mcast_unblock_source(ruk_channel_t ch, const struct in_addr *join_addr,
                                        const struct in_addr *block_addr)
{
    struct ip_mreq_source mreq;
    if (!make_source_request(ch, join_addr, block_addr, &mreq))
        return EINVAL;
    int rc = tov_setsockopt(ch->ch_fd, IPPROTO_IP, IP_UNBLOCK_SOURCE, &mreq, sizeof mreq);
    if (rc != 0)
        return rc;
    struct ruk__mreq_blocked *blocked;
    TAILQ_FOREACH(blocked, &ch->ch_mreq_blocked, mreq_link)
    {
        if (memcmp(&blocked->data, &mreq, sizeof mreq) == 0) {
            TAILQ_REMOVE(&ch->ch_mreq_blocked, blocked, mreq_link);
            free(blocked);
            break;
        }
    }
    return 0;
}

/* ------------------------------------------------------------------ unbinding */

extern "C" void entry_release_uni(struct ruk__tag_entry *entry)
{
    struct ruk__ep *rep = entry->tage_channel->ch_rep;
    ruk__filter_op(rep, 0, entry); /* the tag goes in any case */
    TAILQ_REMOVE(&rep->rep_tag_uniq, entry, tage_link);
    ruk__delay_put_tag_entry(rep, entry);
}

/* Hands a unicast entry to the earliest channel that waits for it; the filter stays as it is. */
static bool hand_over(struct ruk__ep *rep, struct ruk__tag_entry *entry)
{
    struct ruk__channel *heir;
    TAILQ_FOREACH(heir, &rep->rep_chanq, ch_link)
    {
        if (heir->ch_deferred_uni_entry != entry)
            continue;
        heir->ch_uni_entry = entry;
        __atomic_store_n(&entry->tage_channel, heir, __ATOMIC_RELEASE); /* a receiver may be looking it up */
        heir->ch_deferred_uni_entry = nullptr;
        return true;
    }
    return false;
}

static void free_send_handles(struct ruk__channel *ch)
{
    for (struct ruk__send_queue &queue : ch->ch_sendhandleq) {
        while (struct ruk__send *dhs = TAILQ_FIRST(&queue)) {
            TAILQ_REMOVE(&queue, dhs, dhs_link);
            free(dhs);
        }
    }
}

extern "C" void ruk__do_unbind(ruk_channel_t ch)
{
    struct ruk__ep *rep = ch->ch_rep;
    TAILQ_REMOVE(&rep->rep_chanq, ch, ch_link);
    free_send_handles(ch);
    while (struct ruk__tag_entry *entry = TAILQ_FIRST(&ch->ch_tag_multiq))
        release_multi_of(ch, entry);
    if (ch->ch_uni_entry && !hand_over(rep, ch->ch_uni_entry))
        entry_release_uni(ch->ch_uni_entry);
    if (ch->ch_bc_entry)
        entry_release_uni(ch->ch_bc_entry);
    if (ch->ch_fd != -1)
        tov_closesocket(ch->ch_fd);
    while (struct ruk__mreq_blocked *blocked = TAILQ_FIRST(&ch->ch_mreq_blocked)) {
        TAILQ_REMOVE(&ch->ch_mreq_blocked, blocked, mreq_link);
        free(blocked);
    }
    free(ch);
}

extern "C" int ruk_unbind(ruk_channel_t ch)
{
    if (!ch)
        return EINVAL;
    struct ruk__ep *rep = ch->ch_rep;
    ruk__ep_lock(rep);
    ruk__do_unbind(ch);
    ruk__ep_unlock(rep);
    return 0;
}

extern "C" void ruk__unbind_all(ruk_device_t rep)
{
    while (struct ruk__channel *ch = TAILQ_FIRST(&rep->rep_chanq))
        ruk__do_unbind(ch); /* which takes it off the queue. NOLINT(clang-analyzer-unix.Malloc) */
    rep->rep_channel_mix = 0;
}
