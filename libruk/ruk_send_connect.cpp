/*
 * Making and removing send handles.
 */
#include "ruk_core.h"

#include <cerrno>
#include <cstdlib>

#define ARP_RETRIES          1000
#define ARP_RETRIES_NONBLOCK 1
#define IP_TTL_MAX           64

/* Sum of the six bytes of port and address. */
static int bucket_of(const struct sockaddr_in *sin)
{
    /* Two bytes at a time: neither half of a sum of three overflows into the other. */
    const uint32_t addr = sin->sin_addr.s_addr, port = sin->sin_port;
    const uint32_t halves = (addr & 0x00FF00FF) + ((addr >> 8) & 0x00FF00FF) + (port & 0xFF) + (port >> 8);
    return (int)(((halves >> 16) + halves) % RUK_SEND_BUCKETS);
}

/* The handle that the channel keeps for a destination, or null. */
static struct ruk__send *find_cached(struct ruk__send_queue *queue, const struct sockaddr_in *sin)
{
    struct ruk__send *dhs;
    TAILQ_FOREACH(dhs, queue, dhs_link)
    {
        if (!dhs->dhs_isuser && dhs->dhs_dport_be16 == sin->sin_port &&
            dhs->dhs_dpeer.pa_ip_addr_be32 == sin->sin_addr.s_addr)
            return dhs;
    }
    return nullptr;
}

/* Resolves the next hop and makes a handle; with the endpoint lock held, which is dropped meanwhile. */
static int make_handle(ruk_channel_t ch, const struct sockaddr_in *sin, int flags, int ttl, int bucket, int isuser,
                       struct ruk__send **dhs_o)
{
    struct ruk__ep *rep = ch->ch_rep;
    const bool nonblock = (flags & RUK_NONBLOCK) != 0;
    struct ruk__peer_addr peer = {};
    peer.pa_ip_addr_be32 = sin->sin_addr.s_addr;
    int rc = ruk__peer_addr_lookup(rep, ch->ch_ipaddr_be32, &peer, nonblock ? ARP_RETRIES_NONBLOCK : ARP_RETRIES);
    if (rc == ENXIO && nonblock)
        rc = EAGAIN;
    if (rc != 0)
        return rc;

    uint64_t nic_id;
    tov_macaddr_to_nic_id(peer.pa_eth_dest, &nic_id);
    if (nic_id == rep->rep_mif->tov_ifa_nicid)
        return EINVAL; /* the adapter does not send to itself */

    struct ruk__send *dhs = (struct ruk__send *)calloc(1, sizeof *dhs);
    if (!dhs)
        return ENOMEM;
    ruk__sendhandle_init(dhs, ch, &peer, sin, ttl, RUK_IPPROTO_UDP);
    dhs->dhs_hashval = bucket;
    dhs->dhs_isuser = (uint8_t)isuser;
    TAILQ_INSERT_TAIL(&ch->ch_sendhandleq[bucket], dhs, dhs_link);
    *dhs_o = dhs;
    return 0;
}

extern "C" int ruk__do_send_connect(ruk_channel_t ch, const struct sockaddr_in *sin, int flags, int ttl,
                                    ruk_send_t *dhsend_o, int isuser)
{
    if (!sin || sin->sin_addr.s_addr == 0 || ttl < 0 || ttl > IP_TTL_MAX) {
        errno = EINVAL;
        return EINVAL;
    }
    ruk__ep_lock(ch->ch_rep);
    int rc = 0;
    const int bucket = bucket_of(sin);
    struct ruk__send *dhs = isuser ? nullptr : find_cached(&ch->ch_sendhandleq[bucket], sin);
    if (!dhs)
        rc = make_handle(ch, sin, flags, ttl, bucket, isuser, &dhs);
    ruk__ep_unlock(ch->ch_rep);
    if (rc != 0) {
        errno = rc;
        return rc;
    }
    *dhsend_o = dhs;
    return 0;
}

extern "C" int ruk_send_connect(ruk_channel_t ch, const struct sockaddr_in *sin, int flags, int ttl,
                                ruk_send_t *dhsend_o)
{
    return ruk__do_send_connect(ch, sin, flags, ttl, dhsend_o, 1);
}

extern "C" int ruk_send_disconnect(ruk_send_t dhs)
{
    struct ruk__channel *ch = dhs->dhs_chan;
    if (!ch) {
        errno = ENOTCONN;
        return ENOTCONN;
    }
    struct ruk__ep *rep = ch->ch_rep;
    ruk__ep_lock(rep);
    TAILQ_REMOVE(&ch->ch_sendhandleq[dhs->dhs_hashval], dhs, dhs_link);
    free(dhs);
    ruk__ep_unlock(rep);
    return 0;
}
