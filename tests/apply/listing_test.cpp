// kivctl's reading of the port listing: lines as kivd writes them into fields, the table
// people read and the JSON scripts read (parsed back, never compared as text).
#include <gtest/gtest.h>

#include "tests/apply/json.h"
#include "tools/kivctl/listing.h"

namespace {

const char FOREVER[] = "2038-01-19_03:14";

TEST(Listing, LinesBecomeFieldsAndAState) {
  struct row {
    const char *line;
    int port;
    const char *service, *mode;
    unsigned agent, parent;
    const char *state;
  } rows[] = {
      {" 7007  echo          Auto", 7007, "echo", "auto", 0, 0, "idle"},
      {"   25  mail          On Agent=412", 25, "mail", "on", 412, 0, "serving (pid 412)"},
      {"65534  a-much-longer-name   Auto Agent=9", 65534, "a-much-longer-name", "auto", 9, 0,
       "serving (pid 9)"},
      {" 7008  two words     Auto", 7008, "two words", "auto", 0, 0, "idle"},
      {" 7009  hooked        Hook Parent=77 Agent=78", 7009, "hooked", "hook", 78, 77,
       "serving (pid 78), hooked by pid 77"},
      {" 7010  echo          Auto Disable=2026-11-24_22:10", 7010, "echo", "auto", 0, 0,
       "disabled until 2026-11-24 22:10"},
      {" 7011  echo          Auto Disable=2038-01-19_03:14", 7011, "echo", "auto", 0, 0,
       "disabled until enabled"},
      {" 7012  echo          On Disable=2038-01-19_03:14 Agent=5", 7012, "echo", "on", 5, 0,
       "disabled until enabled"},
  };
  for (const row &r : rows) {
    listed_port p;
    ASSERT_TRUE(parse_listing_line(r.line, FOREVER, &p)) << r.line;
    EXPECT_EQ(p.port, r.port) << r.line;
    EXPECT_EQ(p.service, r.service) << r.line;
    EXPECT_EQ(p.mode, r.mode) << r.line;
    EXPECT_EQ(p.agent, r.agent) << r.line;
    EXPECT_EQ(p.parent, r.parent) << r.line;
    EXPECT_EQ(port_state(p), r.state) << r.line;
  }
  for (const char *bad : {"", "!", "+", " 7007 echo Auto", "  abc  echo          Auto",
                          " 7007  echo          Sometimes", " 7007  echo          Auto Agent=x",
                          "    0  echo          Auto", "Auto"}) {
    listed_port p;
    EXPECT_FALSE(parse_listing_line(bad, FOREVER, &p)) << '"' << bad << '"';
  }
}

TEST(Listing, TableAlignsItsColumnsUnderAHeader) {
  listed_port a, b;
  ASSERT_TRUE(parse_listing_line(" 7007  echo          Auto Agent=12", FOREVER, &a));
  ASSERT_TRUE(parse_listing_line("   25  a-much-longer-name   On", FOREVER, &b));
  EXPECT_EQ(listing_table({a, b}),
            "PORT   SERVICE             MODE  STATE\n"
            " 7007  echo                auto  serving (pid 12)\n"
            "   25  a-much-longer-name  on    idle\n");
  EXPECT_EQ(listing_table({}), "PORT   SERVICE  MODE  STATE\n");
}

TEST(Listing, JsonReadsBackWithTypedFields) {
  listed_port a, b, c;
  ASSERT_TRUE(parse_listing_line(" 7007  say \"hi\"\\     Hook Parent=3 Agent=12", FOREVER, &a));
  ASSERT_TRUE(
      parse_listing_line(" 7010  echo          Auto Disable=2026-11-24_22:10", FOREVER, &b));
  ASSERT_TRUE(parse_listing_line(" 7011  echo          On Disable=2038-01-19_03:14", FOREVER, &c));
  kj::reader r(listing_json({a, b, c}));
  kj::value v = r.parse();
  ASSERT_TRUE(r.ok()) << listing_json({a, b, c});
  ASSERT_EQ(v.kind, kj::value::ARRAY);
  ASSERT_EQ(v.items.size(), 3u);
  const kj::value &x = v.items[0];
  EXPECT_EQ(x["port"].number, 7007);
  EXPECT_EQ(x["service"].text, "say \"hi\"\\");
  EXPECT_EQ(x["mode"].text, "hook");
  EXPECT_EQ(x["state"].text, "serving");
  EXPECT_EQ(x["agent"].number, 12);
  EXPECT_EQ(x["parent"].number, 3);
  EXPECT_EQ(x["disabled_until"].kind, kj::value::NUL);
  EXPECT_EQ(v.items[1]["state"].text, "disabled");
  EXPECT_EQ(v.items[1]["disabled_until"].text, "2026-11-24 22:10");
  EXPECT_EQ(v.items[1]["agent"].kind, kj::value::NUL);
  EXPECT_FALSE(v.items[1]["until_enabled"].boolean);
  EXPECT_TRUE(v.items[2]["until_enabled"].boolean);
  EXPECT_EQ(v.items[2]["until_enabled"].kind, kj::value::BOOL);

  for (auto [reply, ok, error] : {std::tuple{"+", true, ""},
                                  {"-Failed with code -4", false, "Failed with code -4"},
                                  {"-\x01 odd", false, "\x01 odd"}}) {
    kj::reader rr(reply_json(reply));
    kj::value o = rr.parse();
    ASSERT_TRUE(rr.ok()) << reply_json(reply);
    EXPECT_EQ(o["ok"].boolean, ok) << reply;
    EXPECT_EQ(o.has("error"), !ok) << reply;
    EXPECT_EQ(o["error"].text, error) << reply;
  }
}

}  // namespace
