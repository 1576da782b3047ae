// The server's decisions without a server: who may administer (the same
// function the authentication callback asks), which values the request
// guard lets through, and the server options' defaults. The network tests
// (app_test.sh remote, dnssd) run the same decisions through a real server;
// they need root, these do not.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "app/auth.h"
#include "app/drivers.h"
#include "app/request_guard.h"
#include "app/server.h"

namespace {

// Base64 of "ann:right", "bob:right", "ann:wrong", worked out with base64(1).
const char kAnnRight[] = "Basic YW5uOnJpZ2h0";
const char kBobRight[] = "Basic Ym9iOnJpZ2h0";
const char kAnnWrong[] = "Basic YW5uOndyb25n";

int sPasswordChecks = 0;
bool fakePassword(const char* service, const char* user, const char* password) {
  ++sPasswordChecks;
  return std::string(service) == "kelvo" && std::string(password) == "right" &&
         (std::string(user) == "ann" || std::string(user) == "bob");
}
bool fakeGroup(const char* user, const char* group) {
  return std::string(user) == "ann" && std::string(group) == "admins";
}

TEST(ServerAuth, DecisionTable) {
  const KelvoAuthPolicy withLogins{"kelvo", "admins", fakePassword, fakeGroup};
  const KelvoAuthPolicy noLogins{"", "admins", fakePassword, fakeGroup};
  struct Case {
    const char* what;
    KelvoAccess access;
    bool local, tls;
    const char* header;
    const KelvoAuthPolicy* policy;
    http_status_t status;
    const char* user;
    bool checksPassword;
  } cases[] = {
      {"printing from afar, clear text", KelvoAccess::kPrint, false, false, nullptr, &noLogins, HTTP_STATUS_CONTINUE,
       "", false},
      {"a local administrator", KelvoAccess::kAdmin, true, false, nullptr, &noLogins, HTTP_STATUS_CONTINUE, "", false},
      {"from afar without logins", KelvoAccess::kAdmin, false, true, kAnnRight, &noLogins, HTTP_STATUS_FORBIDDEN, "",
       false},
      {"a password in clear text", KelvoAccess::kAdmin, false, false, kAnnRight, &withLogins,
       HTTP_STATUS_UPGRADE_REQUIRED, "", false},
      {"no login", KelvoAccess::kAdmin, false, true, nullptr, &withLogins, HTTP_STATUS_UNAUTHORIZED, "", false},
      {"a wrong password", KelvoAccess::kAdmin, false, true, kAnnWrong, &withLogins, HTTP_STATUS_UNAUTHORIZED, "",
       true},
      {"not Basic", KelvoAccess::kAdmin, false, true, "Digest username=\"ann\"", &withLogins,
       HTTP_STATUS_UNAUTHORIZED, "", false},
      {"a user outside the admin group", KelvoAccess::kAdmin, false, true, kBobRight, &withLogins,
       HTTP_STATUS_FORBIDDEN, "bob", true},
      {"an administrator", KelvoAccess::kAdmin, false, true, kAnnRight, &withLogins, HTTP_STATUS_CONTINUE, "ann",
       true},
  };
  for (const Case& c : cases) {
    KelvoAuthRequest request;
    request.access = c.access;
    request.localAdmin = c.local;
    request.encrypted = c.tls;
    request.authorization = c.header;
    sPasswordChecks = 0;
    const KelvoAuthResult result = kelvoAuthDecide(request, *c.policy);
    EXPECT_EQ(result.status, c.status) << c.what;
    EXPECT_EQ(result.user, c.user) << c.what;
    EXPECT_EQ(sPasswordChecks > 0, c.checksPassword) << c.what;
  }
}

TEST(ServerAuth, BasicField) {
  std::string user, password;
  ASSERT_TRUE(kelvoParseBasic("basic Y3k6YTpiOmM=", &user, &password));  // "cy:a:b:c"
  EXPECT_EQ(user, "cy");
  EXPECT_EQ(password, "a:b:c");
  EXPECT_FALSE(kelvoParseBasic("Basic Ong=", &user, &password));  // ":x", no user
  EXPECT_FALSE(kelvoParseBasic("Basic", &user, &password));
  EXPECT_FALSE(kelvoParseBasic(("Basic " + std::string(2000, 'Q')).c_str(), &user, &password));
}

// The -supported attributes of the label printer as its driver makes them.
struct LabelDriver {
  pappl_pr_driver_data_t data{};
  ipp_t* attrs = nullptr;
  LabelDriver() {
    static KelvoJobCallbacks none{};
    EXPECT_TRUE(kelvoDriverCallback(nullptr, "kelvo_203", "file:///dev/null", nullptr, &data, &attrs, &none));
  }
  ~LabelDriver() { ippDelete(attrs); }
  std::string check(ipp_t* request) { return kelvoCheckChoices(request, attrs, data.vendor, data.num_vendor); }
};

TEST(RequestGuard, KelvoChoicesAgainstTheDriversOwnSupportedValues) {
  LabelDriver driver;
  struct Case {
    const char* what;
    ipp_tag_t group;
    const char* name;
    ipp_tag_t tag;
    int number;
    const char* text;
    bool ok;
  } cases[] = {
      {"brightness at the top", IPP_TAG_JOB, "kelvo-brightness", IPP_TAG_INTEGER, 100, nullptr, true},
      {"brightness one above", IPP_TAG_JOB, "kelvo-brightness", IPP_TAG_INTEGER, 101, nullptr, false},
      {"brightness INT_MAX", IPP_TAG_JOB, "kelvo-brightness", IPP_TAG_INTEGER, 2147483647, nullptr, false},
      {"brightness at the bottom, as a default", IPP_TAG_PRINTER, "kelvo-brightness-default", IPP_TAG_INTEGER, -100,
       nullptr, true},
      {"brightness below, as a default", IPP_TAG_PRINTER, "kelvo-brightness-default", IPP_TAG_INTEGER, -101, nullptr,
       false},
      {"gap height as a keyword", IPP_TAG_JOB, "kelvo-gap-height", IPP_TAG_KEYWORD, 0, "3", false},
      {"a halftone offered", IPP_TAG_JOB, "kelvo-halftone", IPP_TAG_KEYWORD, 0, "stucki", true},
      {"a halftone not offered", IPP_TAG_JOB, "kelvo-halftone", IPP_TAG_KEYWORD, 0, "floyd", false},
      {"a halftone as a name", IPP_TAG_JOB, "kelvo-halftone", IPP_TAG_NAME, 0, "stucki", false},
      {"after printing: cut", IPP_TAG_PRINTER, "kelvo-post-action-default", IPP_TAG_KEYWORD, 0, "cut", true},
      {"mirror as an integer", IPP_TAG_JOB, "kelvo-mirror", IPP_TAG_INTEGER, 1, nullptr, false},
      {"not a Kelvo attribute", IPP_TAG_JOB, "kelvo-brightness-extra", IPP_TAG_INTEGER, 999, nullptr, true},
      {"a standard attribute", IPP_TAG_JOB, "copies", IPP_TAG_INTEGER, 999999, nullptr, true},
  };
  for (const Case& c : cases) {
    ipp_t* request = ippNewRequest(IPP_OP_PRINT_JOB);
    if (c.text != nullptr)
      ippAddString(request, c.group, c.tag, c.name, nullptr, c.text);
    else
      ippAddInteger(request, c.group, c.tag, c.name, c.number);
    EXPECT_EQ(driver.check(request).empty(), c.ok) << c.what << ": " << driver.check(request);
    ippDelete(request);
  }
  ipp_t* request = ippNewRequest(IPP_OP_PRINT_JOB);
  ippAddBoolean(request, IPP_TAG_JOB, "kelvo-mirror", 1);
  EXPECT_EQ(driver.check(request), "");
  ipp_attribute_t* both = ippAddInteger(request, IPP_TAG_JOB, IPP_TAG_INTEGER, "kelvo-brightness", 1);
  ippSetInteger(request, &both, 1, 2);
  EXPECT_NE(driver.check(request), "") << "two values of a one-value choice";
  ippDelete(request);
}

TEST(RequestGuard, SizeLimits) {
  ipp_t* request = ippNewRequest(IPP_OP_PRINT_JOB);
  // attributes-charset and attributes-natural-language are two already.
  for (int i = 2; i < kKelvoMaxAttributes; ++i)
    ippAddInteger(request, IPP_TAG_JOB, IPP_TAG_INTEGER, ("x-" + std::to_string(i)).c_str(), i);
  EXPECT_EQ(kelvoCheckSize(request), "");
  ippAddInteger(request, IPP_TAG_JOB, IPP_TAG_INTEGER, "one-too-many", 1);
  EXPECT_NE(kelvoCheckSize(request), "");
  ippDelete(request);

  request = ippNewRequest(IPP_OP_PRINT_JOB);
  std::vector<int> values(kKelvoMaxValues, 7);
  ippAddIntegers(request, IPP_TAG_JOB, IPP_TAG_INTEGER, "many", kKelvoMaxValues - 2, values.data());
  EXPECT_EQ(kelvoCheckSize(request), "");
  ippAddIntegers(request, IPP_TAG_JOB, IPP_TAG_INTEGER, "more", 1, values.data());
  EXPECT_NE(kelvoCheckSize(request), "");
  ippDelete(request);

  request = ippNewRequest(IPP_OP_PRINT_JOB);
  const std::string text(30000, 'a');
  for (int i = 0; i < 9; ++i)
    ippAddString(request, IPP_TAG_JOB, IPP_TAG_TEXT, ("t-" + std::to_string(i)).c_str(), nullptr, text.c_str());
  EXPECT_NE(kelvoCheckSize(request), "") << "270000 bytes of text";
  ippDelete(request);
}

TEST(ServerOptions, ListenOnTheLoopbackUnlessLoginsOrTheAdminSayOtherwise) {
  struct Case {
    std::vector<std::pair<const char*, const char*>> given;
    const char* listen;
    bool loopbackOnly;
  } cases[] = {
      {{}, "localhost", true},
      {{{"auth-service", "kelvo-printer-app"}}, "*", false},
      {{{"listen-hostname", "0.0.0.0"}}, "0.0.0.0", false},
      {{{"listen-hostname", "127.0.0.1,::1"}}, "127.0.0.1,::1", true},
      {{{"auth-service", "login"}, {"listen-hostname", "localhost"}}, "localhost", true},
  };
  for (const Case& c : cases) {
    cups_option_t* options = nullptr;
    int count = 0;
    for (const auto& o : c.given) count = cupsAddOption(o.first, o.second, count, &options);
    KelvoServerOptions parsed;
    std::string error;
    ASSERT_TRUE(kelvoParseServerOptions(count, options, &parsed, &error)) << error;
    EXPECT_EQ(parsed.listen, c.listen);
    EXPECT_EQ(kelvoListensOnLoopbackOnly(parsed.listen), c.loopbackOnly) << parsed.listen;
    cupsFreeOptions(count, options);
  }
}

TEST(ServerOptions, FilesAndMistakes) {
  cups_option_t* options = nullptr;
  int count = cupsAddOption("state-file", "/var/lib/kelvo/state", 0, &options);
  KelvoServerOptions parsed;
  std::string error;
  ASSERT_TRUE(kelvoParseServerOptions(count, options, &parsed, &error)) << error;
  EXPECT_EQ(parsed.tlsDir, "/var/lib/kelvo/tls");
  EXPECT_EQ(parsed.adminGroup, "lpadmin");
  for (const char* wrong : {"server-port=0", "server-port=65536", "server-port=80x", "auth_service=login"}) {
    cups_option_t* bad = nullptr;
    const int n = cupsParseOptions(wrong, 0, &bad);
    EXPECT_FALSE(kelvoParseServerOptions(n, bad, &parsed, &error)) << wrong;
    cupsFreeOptions(n, bad);
  }
  cupsFreeOptions(count, options);
}

}  // namespace
