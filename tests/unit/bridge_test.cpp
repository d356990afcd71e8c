// What a bridge lets through in both directions, and under which subject.
#include <gmock/gmock.h>

#include "bridge/subjects.h"
#include "common/datagram.h"

using namespace tavbridge;

namespace {

struct Datagram {
    tav_ipc_hdr_st header{};
    std::string payload = "payload";

    Datagram(const char *name, uint8_t from, uint32_t from_host, uint8_t to, uint32_t to_host,
             uint16_t flags = 0) {
        std::strcpy(header.src.name, "alpha");
        std::strncpy(header.dest.name, name, TAV_IPC_NAME_MAX);
        header.src.loc = from, header.src.hostid = from_host;
        header.dest.loc = to, header.dest.hostid = to_host;
        header.reqid = 7, header.flags = flags, header.size = static_cast<uint32_t>(payload.size());
        header.magic = tav_ipc_hdr_magic(&header);
    }
    std::string bytes() const {
        return std::string(reinterpret_cast<const char *>(&header), sizeof header) + payload;
    }
};

Home home(uint8_t location, uint32_t hostid) { return {{location, hostid}, true, true}; }

// The subject under which the datagram goes out, or the number of the reason why it does not.
std::string outgoing(const Home &from, const std::string &bytes) {
    Subject subject;
    const Drop reason = judge_outgoing(from, bytes, subject);
    return reason == kNoDrop ? subject_text("d", subject) : std::to_string(reason);
}

Drop incoming(const Home &at, const std::string &subject, const std::string &bytes) {
    const auto parsed = parse_subject("d", subject);
    if (!parsed) return kBadSubject;
    return judge_incoming(at, *parsed, bytes);
}

TEST(Bridge, SubjectNamesDestinationClassAndSender) {
    Home from = home(2, 21);
    EXPECT_EQ(outgoing(from, Datagram("beta", 2, 21, 3, 31).bytes()), "tav.d.3.31.beta.d.2.21");
    EXPECT_EQ(outgoing(from, Datagram("beta", 2, 21, 3, 0).bytes()), "tav.d.3.any.beta.a.2.21");
    for (const uint16_t control : {IPC_FLAG_ACK, IPC_FLAG_NEED_ACK, IPC_FLAG_REQUEST, IPC_FLAG_RESPONSE})
        EXPECT_EQ(outgoing(from, Datagram("beta", 2, 21, 3, 31, control).bytes()), "tav.d.3.31.beta.c.2.21");
    from.any_to_all = false;
    EXPECT_EQ(outgoing(from, Datagram("beta", 2, 21, 3, 0).bytes()), "tav.d.3.any.beta.d.2.21");
    from.durable = false;
    EXPECT_EQ(outgoing(from, Datagram("beta", 2, 21, 3, 0).bytes()), "tav.d.3.any.beta.c.2.21");
}

TEST(Bridge, WhatMustNotLeaveIsRefused) {
    const Home from = home(2, 21);
    const std::string good = Datagram("beta", 2, 21, 3, 31).bytes();
    const auto refused = [&](const std::string &bytes, Drop reason) {
        EXPECT_EQ(outgoing(from, bytes), std::to_string(reason));
    };
    refused(good.substr(0, 59), kShort);
    refused(good.substr(0, good.size() - 1), kBadSize);
    std::string changed = good;
    changed[32] ^= 1; // the message id
    refused(changed, kBadCheck);
    refused(Datagram("beta", 5, 21, 3, 31).bytes(), kForgedSource);
    refused(Datagram("beta", 2, 22, 3, 31).bytes(), kForgedSource);
    refused(Datagram("beta", 2, 21, 2, 31).bytes(), kLoop);
    refused(Datagram("beta", 2, 21, 0, 31).bytes(), kLoop);
    for (const char *name :
         {"", "a.b", "a*", ">", "a b", "a/b", "..", "a\tb", "\xc3\xa4", "_proxy_", "_prx0"})
        refused(Datagram(name, 2, 21, 3, 31).bytes(), kBadName);
}

TEST(Bridge, WhatComesMustFitItsSubjectAndThisMachine) {
    const Home at = home(3, 31);
    const std::string good = Datagram("beta", 2, 21, 3, 31).bytes();
    EXPECT_EQ(incoming(at, "tav.d.3.31.beta.d.2.21", good), kNoDrop);
    EXPECT_EQ(incoming(at, "tav.d.3.any.beta.a.2.21", Datagram("beta", 2, 21, 3, 0).bytes()), kNoDrop);
    EXPECT_EQ(incoming(at, "tav.d.3.31.beta.d.5.21", good),
              kForgedSource); // the sender's permission is for 5
    EXPECT_EQ(incoming(at, "tav.d.3.31.beta.d.2.22", good), kForgedSource);
    EXPECT_EQ(incoming(at, "tav.d.3.31.beta.d.2.21", good + 'x'), kBadSize);
    EXPECT_EQ(incoming(at, "tav.d.3.31.gamma.d.2.21", good), kBadSubject);
    EXPECT_EQ(incoming(at, "tav.d.3.any.beta.d.2.21", good), kBadSubject);
    EXPECT_EQ(incoming(at, "tav.d.3.32.beta.d.2.21", Datagram("beta", 2, 21, 3, 32).bytes()), kNotHere);
    EXPECT_EQ(incoming(at, "tav.d.5.31.beta.d.2.21", Datagram("beta", 2, 21, 5, 31).bytes()), kNotHere);
    EXPECT_EQ(incoming(at, "tav.d.3.31.beta.d.3.39", Datagram("beta", 3, 39, 3, 31).bytes()), kLoop);
    for (const char *subject :
         {"", "tav.d.3.31.beta.d.2", "tav.d.3.31.beta.d.2.21.x", "tav.e.3.31.beta.d.2.21",
          "tav.d.0.31.beta.d.2.21", "tav.d.256.31.beta.d.2.21", "tav.d.3.0.beta.d.2.21",
          "tav.d.3.31.beta.x.2.21", "tav.d.3.31.beta.d.2.any", "tav.d.3.31..d.2.21", "tav.d.3.31.a/b.d.2.21",
          "tav.d.3.31._proxy_.d.2.21", "tav.d.3.31.toolongname.d.2.21"})
        EXPECT_FALSE(parse_subject("d", subject)) << subject;
}

TEST(Bridge, SeveralDatagramsInOneMessageAreCutApart) {
    const std::string one = Datagram("beta", 2, 21, 3, 31).bytes(),
                      two = Datagram("gamma", 2, 21, 3, 31).bytes();
    const std::string joined = one + two + two.substr(0, two.size() - 1);
    std::string_view rest = joined;
    EXPECT_EQ(cut_datagram(rest), one);
    EXPECT_EQ(cut_datagram(rest), two);
    const auto last = cut_datagram(rest);
    EXPECT_EQ(last.size(), two.size() - 1);
    EXPECT_EQ(incoming(home(3, 31), "tav.d.3.31.gamma.c.2.21", std::string(last)), kBadSize);
    EXPECT_TRUE(rest.empty());
    EXPECT_EQ(cut_datagram(rest = "short"), "short");
    EXPECT_EQ(cut_datagram(rest = std::string_view(joined).substr(0, 60)).size(), 60u); // a header alone
}

// A message id that starts again after a restart must not hide a new message.
TEST(Bridge, OnlyTheSameDatagramOfTheSameTimeHasTheSameId) {
    Datagram datagram("beta", 2, 21, 3, 31);
    const auto id = [&](const char *time) { return message_id(datagram.bytes(), time); };
    const std::string first = id("time 1");
    EXPECT_EQ(id("time 1"), first);
    EXPECT_NE(id("time 2"), first);
    datagram.payload = "Payload";
    EXPECT_NE(id("time 1"), first);
    datagram.payload = "payload";
    tavipc::set_fragment(datagram.header, 0);
    EXPECT_NE(id("time 1"), first);
}

TEST(Bridge, PlaceInTheStreamIsFoundInTheReplySubject) {
    const Origin first = parse_origin("$JS.ACK.TAV_d.L3_31.2.77.80.1700000000.5");
    EXPECT_EQ(first.times, 2u);
    EXPECT_EQ(parse_origin("$JS.ACK.TAV_d.L3_31.3.77.81.1700000000.4").key, first.key);
    for (const char *another :
         {"$JS.ACK.TAV_d_ALL.L3_31.2.77.80.1700000000.5", "$JS.ACK.TAV_d.L3_31.2.78.80.1700000000.5",
          "$JS.ACK.TAV_d.L3_31.2.77.80.1700000001.5"}) // the last after a server was killed
        EXPECT_NE(parse_origin(another).key, first.key) << another;
    for (const char *other :
         {"", "_INBOX.x", "$JS.ACK.TAV_d.L3_31.x.y.80.1700000000.5", "$JS.ACK.a.b.c.d.e.f.g.h"})
        EXPECT_EQ(parse_origin(other).key, 0u) << other;
}

} // namespace
