#include "steer.h"

#include "../driver/sys.h"

#include <arpa/inet.h>
#include <cerrno>
#include <cstring>
#include <initializer_list>
#include <linux/if_ether.h>
#include <linux/netfilter.h>
#include <linux/netfilter/nf_tables.h>
#include <linux/netfilter/nfnetlink.h>
#include <linux/netlink.h>
#include <net/if.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <vector>

namespace softnic {

// Messages of one transaction of the packet filter: all of them take effect, or none.
class NetlinkBatch {
public:
    explicit NetlinkBatch(uint32_t *seq) : seq_(seq), first_seq_(*seq + 1) { control(NFNL_MSG_BATCH_BEGIN); }

    void message(int type, uint16_t flags, const std::string &table)
    {
        begin(static_cast<uint16_t>(NFNL_SUBSYS_NFTABLES << 8 | type), flags, NFPROTO_NETDEV, 0);
        // NFTA_CHAIN_TABLE, NFTA_RULE_TABLE, NFTA_SET_TABLE and NFTA_SET_ELEM_LIST_TABLE are the same number.
        text(NFTA_TABLE_NAME, table);
    }

    void bytes(uint16_t type, const void *data, size_t len)
    {
        nlattr a = {};
        a.nla_len = static_cast<uint16_t>(sizeof(a) + len);
        a.nla_type = type;
        append(&a, sizeof(a));
        append(data, len);
        patch_message_length();
    }
    void text(uint16_t type, const std::string &s) { bytes(type, s.c_str(), s.size() + 1); }
    void be32(uint16_t type, uint32_t v)
    {
        v = htonl(v);
        bytes(type, &v, sizeof(v));
    }

    // Everything that body adds becomes the content of one attribute.
    template <typename Body> void nested(uint16_t type, Body body)
    {
        const size_t at = buf_.size();
        bytes(type | NLA_F_NESTED, nullptr, 0);
        body();
        const auto len = static_cast<uint16_t>(buf_.size() - at);
        memcpy(&buf_[at], &len, sizeof(len));
        patch_message_length();
    }

    // One step of a rule.
    template <typename Body> void expression(const char *name, Body body)
    {
        nested(NFTA_LIST_ELEM, [&] {
            text(NFTA_EXPR_NAME, name);
            nested(NFTA_EXPR_DATA, body);
        });
    }

    // Only the last message asks for an answer: it speaks for the whole. What is not committed is checked, and undone.
    const std::vector<uint8_t> &finish(bool commit)
    {
        nlmsghdr h;
        memcpy(&h, &buf_[message_], sizeof(h));
        h.nlmsg_flags |= NLM_F_ACK;
        memcpy(&buf_[message_], &h, sizeof(h));
        answer_seq_ = h.nlmsg_seq;
        if (commit)
            control(NFNL_MSG_BATCH_END);
        return buf_;
    }
    uint32_t first_seq() const { return first_seq_; }
    uint32_t answer_seq() const { return answer_seq_; }

private:
    void control(uint16_t type) { begin(type, 0, AF_UNSPEC, NFNL_SUBSYS_NFTABLES); }

    void begin(uint16_t type, uint16_t flags, uint8_t family, uint16_t resource)
    {
        message_ = buf_.size();
        nlmsghdr h = {};
        h.nlmsg_type = type;
        h.nlmsg_flags = NLM_F_REQUEST | flags;
        h.nlmsg_seq = ++*seq_;
        nfgenmsg g = {};
        g.nfgen_family = family;
        g.version = NFNETLINK_V0;
        g.res_id = htons(resource);
        append(&h, sizeof(h));
        append(&g, sizeof(g));
        patch_message_length();
    }

    void append(const void *data, size_t len)
    {
        const size_t at = buf_.size();
        buf_.resize(at + NLMSG_ALIGN(len));
        if (len != 0)
            memcpy(&buf_[at], data, len);
    }

    void patch_message_length()
    {
        const auto len = static_cast<uint32_t>(buf_.size() - message_);
        memcpy(&buf_[message_], &len, sizeof(len));
    }

    uint32_t *seq_;
    uint32_t first_seq_;
    uint32_t answer_seq_ = 0;
    std::vector<uint8_t> buf_;
    size_t message_ = 0;
};

namespace {

// A set holds the keys of one shape: with or without VLAN, with or without port. The parts of a key take whole
// registers, in this order.
struct SetShape {
    const char *name;
    bool vlan, port;
};
constexpr SetShape kSets[] = {
    {"untagged", false, true},
    {"tagged", true, true},
    {"untagged_keyframes", false, false},
    {"tagged_keyframes", true, false},
};

// Types of the parts of a key as the packet filter's own tool numbers them, for its listings.
constexpr uint32_t kTypeIpv4 = 7, kTypeProto = 12, kTypeNumber16 = 13, kTypeBits = 6;

constexpr uint32_t kFirstReg = NFT_REG32_00, kScratchReg = NFT_REG32_08;
constexpr uint32_t kRegBytes = 4;

// Steps of a rule, over registers of 32 bits.
class RuleWriter {
public:
    explicit RuleWriter(NetlinkBatch *batch) : b_(*batch) {}

    void load(uint32_t base, uint32_t offset, uint32_t len, uint32_t reg)
    {
        b_.expression("payload", [&] {
            b_.be32(NFTA_PAYLOAD_DREG, reg);
            b_.be32(NFTA_PAYLOAD_BASE, base);
            b_.be32(NFTA_PAYLOAD_OFFSET, offset);
            b_.be32(NFTA_PAYLOAD_LEN, len);
        });
    }
    void load_protocol(uint32_t reg)
    {
        b_.expression("meta", [&] {
            b_.be32(NFTA_META_KEY, NFT_META_L4PROTO);
            b_.be32(NFTA_META_DREG, reg);
        });
    }
    void mask16(uint32_t reg, uint16_t mask)
    {
        const uint16_t net_mask = htons(mask), zero = 0;
        b_.expression("bitwise", [&] {
            b_.be32(NFTA_BITWISE_SREG, reg);
            b_.be32(NFTA_BITWISE_DREG, reg);
            b_.be32(NFTA_BITWISE_LEN, sizeof(mask));
            b_.nested(NFTA_BITWISE_MASK, [&] { b_.bytes(NFTA_DATA_VALUE, &net_mask, sizeof(net_mask)); });
            b_.nested(NFTA_BITWISE_XOR, [&] { b_.bytes(NFTA_DATA_VALUE, &zero, sizeof(zero)); });
        });
    }
    void require(uint32_t reg, std::initializer_list<uint8_t> value)
    {
        b_.expression("cmp", [&] {
            b_.be32(NFTA_CMP_SREG, reg);
            b_.be32(NFTA_CMP_OP, NFT_CMP_EQ);
            b_.nested(NFTA_CMP_DATA, [&] { b_.bytes(NFTA_DATA_VALUE, value.begin(), value.size()); });
        });
    }
    void require_in(const char *set)
    {
        b_.expression("lookup", [&] {
            b_.text(NFTA_LOOKUP_SET, set);
            b_.be32(NFTA_LOOKUP_SREG, kFirstReg);
        });
    }
    void drop()
    {
        b_.expression("immediate", [&] {
            b_.be32(NFTA_IMMEDIATE_DREG, NFT_REG_VERDICT);
            b_.nested(NFTA_IMMEDIATE_DATA,
                      [&] { b_.nested(NFTA_DATA_VERDICT, [&] { b_.be32(NFTA_VERDICT_CODE, NF_DROP); }); });
        });
    }

private:
    NetlinkBatch &b_;
};

uint32_t key_bytes(const SetShape &set) { return kRegBytes * (1 + (set.vlan ? 1 : 0) + (set.port ? 2 : 0)); }

void add_set(NetlinkBatch *batch, const std::string &table, const SetShape &set, uint32_t id)
{
    uint32_t type = set.vlan ? kTypeNumber16 : 0;
    type = type << kTypeBits | kTypeIpv4;
    if (set.port)
        type = (type << kTypeBits | kTypeProto) << kTypeBits | kTypeNumber16;
    batch->message(NFT_MSG_NEWSET, NLM_F_CREATE | NLM_F_EXCL, table);
    batch->text(NFTA_SET_NAME, set.name);
    batch->be32(NFTA_SET_FLAGS, 0);
    batch->be32(NFTA_SET_KEY_TYPE, type);
    batch->be32(NFTA_SET_KEY_LEN, key_bytes(set));
    batch->be32(NFTA_SET_ID, id);
}

void add_chain(NetlinkBatch *batch, const std::string &table, const std::string &ifname)
{
    batch->message(NFT_MSG_NEWCHAIN, NLM_F_CREATE | NLM_F_EXCL, table);
    batch->text(NFTA_CHAIN_NAME, "ingress");
    batch->text(NFTA_CHAIN_TYPE, "filter");
    batch->be32(NFTA_CHAIN_POLICY, NF_ACCEPT);
    batch->nested(NFTA_CHAIN_HOOK, [&] {
        batch->be32(NFTA_HOOK_HOOKNUM, NF_NETDEV_INGRESS);
        batch->be32(NFTA_HOOK_PRIORITY, static_cast<uint32_t>(-500)); // before whatever else the host filters
        batch->text(NFTA_HOOK_DEV, ifname);
    });
}

// Frames of a set's shape whose key is in it are dropped. Fragments other than the first never are, and that is asked
// for: not every kernel refuses to load a port from them.
void add_rule(NetlinkBatch *batch, const std::string &table, const SetShape &set)
{
    batch->message(NFT_MSG_NEWRULE, NLM_F_CREATE | NLM_F_APPEND, table);
    batch->text(NFTA_RULE_CHAIN, "ingress");
    batch->nested(NFTA_RULE_EXPRESSIONS, [&] {
        RuleWriter rule(batch);
        uint32_t reg = kFirstReg;
        rule.load(NFT_PAYLOAD_LL_HEADER, 12, 2, kScratchReg);
        if (set.vlan) {
            rule.require(kScratchReg, {0x81, 0x00});
            rule.load(NFT_PAYLOAD_LL_HEADER, 16, 2, kScratchReg);
        }
        rule.require(kScratchReg, {0x08, 0x00});
        if (!set.port) {
            rule.load_protocol(kScratchReg);
            rule.require(kScratchReg, {kProtoKeyframe});
        }
        rule.load(NFT_PAYLOAD_NETWORK_HEADER, 6, 2, kScratchReg);
        rule.mask16(kScratchReg, 0x1FFF);
        rule.require(kScratchReg, {0, 0});
        if (set.vlan) {
            rule.load(NFT_PAYLOAD_LL_HEADER, 14, 2, reg);
            rule.mask16(reg++, 0x0FFF);
        }
        rule.load(NFT_PAYLOAD_NETWORK_HEADER, 16, 4, reg++);
        if (set.port) {
            rule.load_protocol(reg++);
            rule.load(NFT_PAYLOAD_TRANSPORT_HEADER, 2, 2, reg++);
        }
        rule.require_in(set.name);
        rule.drop();
    });
}

void add_all(NetlinkBatch *batch, const std::string &table, const std::string &ifname)
{
    batch->message(NFT_MSG_NEWTABLE, NLM_F_CREATE | NLM_F_EXCL, table);
    batch->be32(NFTA_TABLE_FLAGS, NFT_TABLE_F_OWNER);
    uint32_t id = 0;
    for (const SetShape &set : kSets)
        add_set(batch, table, set, ++id);
    add_chain(batch, table, ifname);
    for (const SetShape &set : kSets)
        add_rule(batch, table, set);
}

} // namespace

// The socket, and the name of its table.
int Steering::connect()
{
    close();
    fd_ = sys::keep(::socket(AF_NETLINK, SOCK_RAW | SOCK_CLOEXEC, NETLINK_NETFILTER));
    if (fd_ < 0)
        return errno;
    guard_.guard(&fd_);

    // The kernel answers within the call; the limit is for the one that does not.
    const timeval limit = {5, 0};
    setsockopt(fd_, SOL_SOCKET, SO_RCVTIMEO, &limit, sizeof(limit));
    sockaddr_nl address = {};
    address.nl_family = AF_NETLINK;
    socklen_t len = sizeof(address);
    if (bind(fd_, reinterpret_cast<sockaddr *>(&address), len) < 0 ||
        getsockname(fd_, reinterpret_cast<sockaddr *>(&address), &len) < 0) {
        const int error = errno;
        close();
        return error;
    }

    // The second number tells apart the tables of one process, and those of processes that share an id because
    // they live in different containers.
    table_ = "ruk_" + std::to_string(getpid()) + "_" + std::to_string(address.nl_pid);
    return 0;
}

int Steering::open(const std::string &ifname)
{
    if (const int error = connect(); error != 0)
        return error;
    NetlinkBatch batch(&seq_);
    add_all(&batch, table_, ifname);
    const int error = transact(batch);
    if (error != 0)
        close();
    return error;
}

// On the one interface that every host has.
int try_steering()
{
    Steering steering;
    if (const int error = steering.connect(); error != 0)
        return error;
    NetlinkBatch batch(&steering.seq_);
    add_all(&batch, steering.table_, "lo");
    return steering.transact(batch, false);
}

void Steering::close()
{
    guard_.release();
    if (fd_ >= 0)
        sys::close(fd_);
    fd_ = -1;
}

int Steering::change(const SteerKey &key, bool install)
{
    if (fd_ < 0)
        return EBADF;
    const size_t shape = (key.proto == kProtoKeyframe ? 2 : 0) + (key.vlan != 0 ? 1 : 0);
    uint8_t value[4 * kRegBytes] = {};
    uint8_t *p = value;
    const uint16_t vlan = htons(key.vlan), port = htons(key.port);
    const uint32_t address = htonl(key.ip_addr);
    if (key.vlan != 0) {
        memcpy(p, &vlan, sizeof(vlan));
        p += kRegBytes;
    }
    memcpy(p, &address, sizeof(address));
    p += kRegBytes;
    if (kSets[shape].port) {
        *p = key.proto;
        p += kRegBytes;
        memcpy(p, &port, sizeof(port));
    }

    NetlinkBatch batch(&seq_);
    batch.message(install ? NFT_MSG_NEWSETELEM : NFT_MSG_DELSETELEM, install ? NLM_F_CREATE | NLM_F_EXCL : 0, table_);
    batch.text(NFTA_SET_ELEM_LIST_SET, kSets[shape].name);
    batch.nested(NFTA_SET_ELEM_LIST_ELEMENTS, [&] {
        batch.nested(NFTA_LIST_ELEM, [&] {
            batch.nested(NFTA_SET_ELEM_KEY, [&] { batch.bytes(NFTA_DATA_VALUE, value, key_bytes(kSets[shape])); });
        });
    });
    return transact(batch);
}

int Steering::transact(NetlinkBatch &batch, bool commit)
{
    const std::vector<uint8_t> &messages = batch.finish(commit);
    if (::send(fd_, messages.data(), messages.size(), 0) < 0)
        return errno;
    for (;;) {
        alignas(nlmsghdr) uint8_t answer[4096];
        const ssize_t n = ::recv(fd_, answer, sizeof(answer), 0);
        if (n < 0 && errno == EINTR)
            continue;
        if (n < 0)
            return errno == EAGAIN ? ETIMEDOUT : errno;
        auto left = static_cast<unsigned>(n);
        for (auto *h = reinterpret_cast<nlmsghdr *>(answer); NLMSG_OK(h, left); h = NLMSG_NEXT(h, left)) {
            // What an earlier transaction left behind when it failed is not for this one.
            if (h->nlmsg_type != NLMSG_ERROR || h->nlmsg_seq < batch.first_seq())
                continue;
            const auto *result = static_cast<const nlmsgerr *>(NLMSG_DATA(h));
            if (result->error != 0)
                return -result->error;
            if (h->nlmsg_seq == batch.answer_seq())
                return 0;
        }
    }
}

} // namespace softnic
