// Documents from outside: every refusal the reader makes, with its place, and the file
// kinds that are not documents; control-socket requests read the same way.
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdlib>
#include <fstream>

#include "agent/ControlRequest.h"
#include "agent/JsonRead.h"

namespace {

using namespace VeldAgent;

// The one error of a refused document, as "pointer: message".
std::string refusal(std::string_view text, size_t maxBytes = 1 << 20) {
   std::vector<DocError> errors;
   auto doc = readJson(text, maxBytes, &errors);
   EXPECT_EQ(doc.has_value(), errors.empty());
   if (errors.size() != 1) return "errors: " + std::to_string(errors.size());
   return errors.front().toString();
}

TEST(JsonRead, RefusesWhatIsNotADocumentWithItsPlace) {
   EXPECT_EQ(refusal(R"({"a": [1, 2, 1e999]})"),
             R"(/a/2: the number "1e999" is too large (at line 1, column 14))");
   EXPECT_EQ(refusal("{\"a\":\n  -1e400}"),
             R"(/a: the number "-1e400" is too large (at line 2, column 3))");
   EXPECT_EQ(refusal("1e999"),
             R"((document): the number "1e999" is too large (at line 1, column 1))");
   // The raw bytes the parser quotes come back escaped.
   EXPECT_EQ(refusal("{\"a\": \"x\xff\"}"),
             "(document): not valid JSON at line 1, column 9: syntax error while parsing value - "
             "invalid string: ill-formed UTF-8 byte; last read: \"\\x22x\\xff\"");
   EXPECT_EQ(refusal("{\"a\": 1,\n \"b\": }"),
             "(document): not valid JSON at line 2, column 7: syntax error while parsing value - "
             "unexpected '}'; expected '[', '{', or a literal");
   EXPECT_EQ(refusal(R"({"a": {"b": 1, "b": 2}})"), R"(/a/b: the key "b" is given twice)");
   EXPECT_EQ(refusal(R"([{}, {"x~/": 1, "x~/": 1}])"), R"(/1/x~0~1: the key "x~/" is given twice)");
   EXPECT_EQ(refusal(" \n\t"), "(document): the document is empty");
   EXPECT_EQ(refusal("[1, 2, 3]", 4), "(document): the document is larger than 4 bytes");
   EXPECT_EQ(refusal(std::string(33, '[') + std::string(33, ']')),
             "(document): the document nests deeper than 32 levels");
   EXPECT_EQ(refusal("{} {}").substr(0, 52),
             "(document): not valid JSON at line 1, column 4: synt");
}

TEST(JsonRead, TakesADocumentWhole) {
   std::vector<DocError> errors;
   auto doc = readJson(R"({"a": [1, {"b": [true, null, "x"]}, -2.5], "c": {}})", 1 << 20, &errors);
   ASSERT_TRUE(doc) << errors.front().toString();
   EXPECT_EQ(*doc, nlohmann::json::parse(R"({"a": [1, {"b": [true, null, "x"]}, -2.5], "c": {}})"));
   auto deepest = std::string(32, '[') + std::string(32, ']');
   EXPECT_TRUE(readJson(deepest, 1 << 20, &errors));
}

TEST(JsonRead, DumpsTextThatIsNotUtf8) {
   nlohmann::json j{{"device", std::string("et\xff")}};
   EXPECT_THROW((void)j.dump(), nlohmann::json::type_error);
   EXPECT_EQ(dumpJson(j), "{\"device\":\"et\xEF\xBF\xBD\"}");
}

class DocumentFile : public ::testing::Test {
protected:
   void SetUp() override {
      char tmpl[] = "/tmp/veldjson.XXXXXX";
      dir_ = ::mkdtemp(tmpl);
   }
   void TearDown() override { std::system(("rm -rf '" + dir_ + "'").c_str()); }
   std::string read(std::string const& path, size_t max = 1 << 20) {
      std::string text;
      auto err = readDocumentFile(path, max, &text);
      return err ? err->message : "read: " + text;
   }
   std::string dir_;
};

TEST_F(DocumentFile, OnlyARegularFileOfAcceptedSizeIsRead) {
   std::string file = dir_ + "/a.json";
   std::ofstream(file) << "{}";
   EXPECT_EQ(read(file), "read: {}");
   EXPECT_EQ(read(file, 1), "cannot read " + file + ": it is larger than 1 bytes");
   EXPECT_EQ(read(dir_), "cannot read " + dir_ + ": it is a directory");
   EXPECT_EQ(read(dir_ + "/none"), "cannot read " + dir_ + "/none: No such file or directory");
   // A FIFO without a writer would block a reader that opened it for reading: refused.
   ASSERT_EQ(::mkfifo((dir_ + "/fifo").c_str(), 0600), 0);
   EXPECT_EQ(read(dir_ + "/fifo"), "cannot read " + dir_ + "/fifo: it is not a regular file");
}

TEST(ControlRequest, ReadsEachShowAndRefusesTheRestWithItsPlace) {
   for (auto what :
        {ShowWhat::interfaces, ShowWhat::vrfs, ShowWhat::backlog, ShowWhat::config,
         ShowWhat::routingAgents, ShowWhat::nexthops, ShowWhat::ip6Enable, ShowWhat::multicast}) {
      auto text = controlRequestText(ControlRequest(what));
      auto parsed = parseControlRequest(text);
      ASSERT_TRUE(parsed.request) << text;
      EXPECT_EQ(parsed.request->show, what);
      EXPECT_EQ(showWhatFromName(showWhatName(what)), what);
   }
   EXPECT_EQ(controlRequestText(ControlRequest(ShowWhat::vrfs)), R"({"show":"vrfs"})");
   EXPECT_EQ(controlRequestText(ControlRequest(ShowWhat::routingAgents)),
             R"({"show":"routing-agents"})");
   for (bool on : {true, false}) {
      auto parsed = parseControlRequest(controlRequestText(ControlRequest::switchoverTo(on)));
      ASSERT_TRUE(parsed.request);
      EXPECT_EQ(parsed.request->switchover, on);
   }
   auto refused = [](std::string_view line) {
      auto p = parseControlRequest(line);
      EXPECT_FALSE(p.request);
      return p.errors.empty() ? std::string("accepted") : p.errors.front().toString();
   };
   EXPECT_EQ(refused(R"({"show": "routes"})"),
             R"(/show: shows one of interfaces, vrfs, backlog, config, routing-agents, nexthops, )"
             R"(ip6-enable, multicast; not "routes")");
   EXPECT_EQ(refused(R"({"show": 1})"),
             "/show: shows one of interfaces, vrfs, backlog, config, "
             "routing-agents, nexthops, ip6-enable, multicast; not a number");
   EXPECT_EQ(refused(R"({"shout": "vrfs"})"),
             R"(/shout: unknown request "shout" (known: show, switchover, nexthops, subscribe, )"
             R"(ip6-enable, ip6-enable-withdraw, multicast, multicast-withdraw))");
   EXPECT_EQ(refused(R"({"switchover": "yes"})"), "/switchover: is true or false, not a string");
   EXPECT_EQ(refused(R"({"show": "vrfs", "x": 1})"), R"(/x: unknown member "x")");
   EXPECT_EQ(refused(R"({"switchover": true, "x": 1})").substr(0, 40),
             "(document): a request is an object with ");
   EXPECT_EQ(refused("show interfaces").substr(0, 32), "(document): not valid JSON at li");
   EXPECT_EQ(refused(R"({"show": 1e999})"),
             R"(/show: the number "1e999" is too large (at line 1, column 10))");
   EXPECT_EQ(refused(std::string(kMaxRequestBytes + 1, ' ')),
             "(document): the document is larger than 4096 bytes");
}

TEST(ControlRequest, NexthopRequestsReadBackAndNameTheirFaults) {
   for (auto const* line :
        {R"({"show": "nexthops", "vrf": "red"})", R"({"subscribe": "bgp"})",
         R"({"nexthops": {"client": "bgp", "vrf": "red", "set": ["10.0.0.1", "2001:db8::1"]}})",
         R"({"nexthops": {"client": "bgp", "vrf": "red", "set": []}})"}) {
      auto parsed = parseControlRequest(line);
      ASSERT_TRUE(parsed.request) << line;
      auto again = parseControlRequest(controlRequestText(*parsed.request));
      ASSERT_TRUE(again.request) << line;
      EXPECT_EQ(*again.request, *parsed.request) << line;
   }
   auto set =
       parseControlRequest(R"({"nexthops": {"client": "b", "vrf": "v", "set": ["10.0.0.1"]}})");
   ASSERT_TRUE(set.request && set.request->kind == RequestKind::nexthops);
   EXPECT_EQ(set.request->nexthops.size(), 1u);
   auto refused = [](std::string_view line) {
      auto p = parseControlRequest(line);
      return p.errors.empty() ? std::string("accepted") : p.errors.front().toString();
   };
   EXPECT_EQ(refused(R"({"show": "vrfs", "vrf": "red"})"), R"(/vrf: unknown member "vrf")");
   EXPECT_EQ(refused(R"({"subscribe": "a b"})"),
             R"(/subscribe: "a b" is not a program's name (1 to 64 letters, digits and "_-."))");
   EXPECT_EQ(
       refused(R"({"nexthops": {"client": "b", "vrf": "v", "set": ["10.0.0.1", "10.0.0.1"]}})"),
       R"(/nexthops/set/1: "10.0.0.1" is listed twice)");
   EXPECT_EQ(refused(R"({"nexthops": {"client": "b", "vrf": "v", "set": ["10.0.0.0/8"]}})"),
             R"(/nexthops/set/0: "10.0.0.0/8" is not an IPv4 or IPv6 address)");
   EXPECT_EQ(refused(R"({"nexthops": {"client": "b", "set": []}})"),
             R"(/nexthops: names its VRF ("vrf"))");
}

// A program's request for IPv6 and its withdrawal: read back from their own text, and every
// malformed one refused at its place.
TEST(ControlRequest, ReadsIpv6EnableRequestsAndRefusesMalformedOnesWithTheirPlace) {
   auto request = ControlRequest::ip6Enable(
       "dhcp6-relay", {Konet::IntfId("Ethernet1"), Konet::IntfId("Ethernet3/1")});
   auto text = controlRequestText(request);
   EXPECT_EQ(text,
             R"({"ip6-enable":{"interfaces":["Ethernet1","Ethernet3/1"],"name":"dhcp6-relay"}})");
   auto parsed = parseControlRequest(text);
   ASSERT_TRUE(parsed.request);
   EXPECT_EQ(*parsed.request, request);
   auto none = parseControlRequest(R"({"ip6-enable": {"name": "a.b_c", "interfaces": []}})");
   ASSERT_TRUE(none.request);
   EXPECT_TRUE(none.request->interfaces.empty());
   auto withdraw = parseControlRequest(R"({"ip6-enable-withdraw": "dhcp6-relay"})");
   ASSERT_TRUE(withdraw.request);
   EXPECT_EQ(*withdraw.request, ControlRequest::ip6EnableWithdraw("dhcp6-relay"));
   EXPECT_EQ(controlRequestText(*withdraw.request), R"({"ip6-enable-withdraw":"dhcp6-relay"})");

   auto refused = [](std::string_view line) {
      auto p = parseControlRequest(line);
      EXPECT_FALSE(p.request) << line;
      return p.errors.empty() ? std::string("accepted") : p.errors.front().toString();
   };
   EXPECT_EQ(
       refused(R"({"ip6-enable": ["Ethernet1"]})"),
       R"(/ip6-enable: an IPv6 enable request is an object with "name" and "interfaces", not an array)");
   EXPECT_EQ(refused(R"({"ip6-enable": {"name": "x"}})"),
             R"(/ip6-enable: an IPv6 enable request needs "interfaces")");
   EXPECT_EQ(refused(R"({"ip6-enable": {"interfaces": []}})"),
             R"(/ip6-enable: an IPv6 enable request needs "name")");
   EXPECT_EQ(refused(R"({"ip6-enable": {"name": "x", "interfaces": [], "vrf": "red"}})"),
             R"(/ip6-enable/vrf: unknown member "vrf" (known: name, interfaces))");
   EXPECT_EQ(
       refused(R"({"ip6-enable": {"name": "a b", "interfaces": []}})"),
       R"(/ip6-enable/name: "a b" is not a program's name (1 to 64 letters, digits and "_-."))");
   EXPECT_EQ(refused(R"({"ip6-enable": {"name": "", "interfaces": []}})").substr(0, 37),
             R"(/ip6-enable/name: "" is not a program)");
   EXPECT_EQ(refused(R"({"ip6-enable": {"name": 7, "interfaces": []}})"),
             "/ip6-enable/name: a program's name is a string, not a number");
   EXPECT_EQ(refused(R"({"ip6-enable": {"name": "x", "interfaces": "Ethernet1"}})"),
             "/ip6-enable/interfaces: a list of interfaces, not a string");
   EXPECT_EQ(refused(R"({"ip6-enable": {"name": "x", "interfaces": ["Ethernet1", 2]}})"),
             "/ip6-enable/interfaces/1: an interface is a string, not a number");
   EXPECT_EQ(
       refused(R"({"ip6-enable": {"name": "x", "interfaces": ["Ethernet1", "9x"]}})"),
       "/ip6-enable/interfaces/1: '9x' is not an interface name: it must begin with a letter");
   EXPECT_EQ(
       refused(
           R"({"ip6-enable": {"name": "x", "interfaces": ["Ethernet1", "Ethernet2", "Ethernet1"]}})"),
       R"(/ip6-enable/interfaces/2: "Ethernet1" is given twice)");
   EXPECT_EQ(refused(R"({"ip6-enable-withdraw": {"name": "x"}})"),
             "/ip6-enable-withdraw: a program's name is a string, not an object");
   EXPECT_EQ(refused(R"({"ip6-enable-withdraw": "x/y"})").substr(0, 45),
             R"(/ip6-enable-withdraw: "x/y" is not a program')");
}

}  // namespace

// A program's multicast groups on one interface and its withdrawal: read back from their own
// text, and every malformed one refused at its place.
TEST(ControlRequest, ReadsMulticastRequestsAndRefusesMalformedOnesWithTheirPlace) {
   for (
       auto const* line :
       {R"({"multicast": {"name": "mld-snoop", "interface": "Ethernet1", "groups": ["ff02::fb", "224.0.0.251"]}})",
        R"({"multicast": {"name": "mld-snoop", "interface": "Ethernet1", "groups": []}})",
        R"({"multicast-withdraw": "mld-snoop"})"}) {
      auto parsed = parseControlRequest(line);
      ASSERT_TRUE(parsed.request) << line;
      auto again = parseControlRequest(controlRequestText(*parsed.request));
      ASSERT_TRUE(again.request) << line;
      EXPECT_EQ(*again.request, *parsed.request) << line;
   }
   auto parsed = parseControlRequest(
       R"({"multicast": {"name": "m", "interface": "Ethernet1", "groups": ["FF02::FB"]}})");
   ASSERT_TRUE(parsed.request);
   EXPECT_EQ(*parsed.request, ControlRequest::multicast("m", Konet::IntfId("Ethernet1"),
                                                        {*Konet::IpGenAddr::parse("ff02::fb")}));

   auto refused = [](std::string_view line) {
      auto p = parseControlRequest(line);
      EXPECT_FALSE(p.request) << line;
      return p.errors.empty() ? std::string("accepted") : p.errors.front().toString();
   };
   EXPECT_EQ(refused(R"({"multicast": "ff02::fb"})"),
             R"(/multicast: a multicast request is an object with "name", "interface" and )"
             R"("groups", not a string)");
   EXPECT_EQ(refused(R"({"multicast": {"name": "m", "groups": []}})"),
             R"(/multicast: a multicast request needs "interface")");
   EXPECT_EQ(
       refused(R"({"multicast": {"name": "m", "interface": "Ethernet1", "groups": [], "x": 1}})"),
       R"(/multicast/x: unknown member "x" (known: name, interface, groups))");
   EXPECT_EQ(refused(R"({"multicast": {"name": "veld", "interface": "Ethernet1", "groups": []}})"),
             R"(/multicast/name: "veld" is the agent's own application)");
   EXPECT_EQ(refused(R"({"multicast": {"name": "m", "interface": "9x", "groups": []}})"),
             "/multicast/interface: '9x' is not an interface name: it must begin with a letter");
   EXPECT_EQ(
       refused(R"({"multicast": {"name": "m", "interface": "Ethernet1", "groups": "ff02::fb"}})"),
       "/multicast/groups: a list of multicast groups, not a string");
   EXPECT_EQ(
       refused(
           R"({"multicast": {"name": "m", "interface": "Ethernet1", "groups": ["ff02::fb", "10.0.0.1"]}})"),
       R"(/multicast/groups/1: "10.0.0.1" is not an IPv4 or IPv6 multicast address)");
   EXPECT_EQ(
       refused(
           R"({"multicast": {"name": "m", "interface": "Ethernet1", "groups": ["ff02::fb", "ff02::fb"]}})"),
       R"(/multicast/groups/1: "ff02::fb" is given twice)");
}
