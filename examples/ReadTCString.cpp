// Reads TC Strings given on the command line and prints what each one records, as an
// application that only needs to check a stored choice would use the library.
//
//   read_tc_string TC_STRING...
//
// Exit status 0 when every string could be read, 1 otherwise.

#include <cstdint>
#include <cstdio>
#include <string>
#include <vector>

#include "quillet/codec/QLTCMPUtils.h"
#include "quillet/codec/TCString.h"

namespace {

// "[1, 2, 7]".
std::string listed(const std::vector<std::int64_t>& ids) {
  std::string out = "[";
  for (std::size_t i = 0; i < ids.size(); ++i)
    out += (i > 0 ? ", " : "") + std::to_string(ids[i]);
  return out + "]";
}

}  // namespace

int main(int argc, char** argv) {
  if (argc < 2) {
    std::fprintf(stderr, "usage: read_tc_string TC_STRING...\n");
    return 2;
  }
  int status = 0;
  for (int i = 1; i < argc; ++i) {
    const auto parsed = quillet::TCString::parse(argv[i]);
    if (!parsed) {
      std::printf("%s: cannot be read: %s\n", argv[i], parsed.error().message().c_str());
      status = 1;
      continue;
    }
    const quillet::TCString& tc = *parsed;
    std::printf("%s\n", argv[i]);
    std::printf("  CMP %d version %d, vendor list %d, language %s, country %s\n", tc.cmpId,
                tc.cmpVersion, tc.vendorListVersion, tc.consentLanguage.c_str(),
                tc.publisherCountryCode.c_str());
    std::printf("  purposes consented: %s\n", listed(tc.purposeConsents.ids()).c_str());
    std::printf("  vendors consented: %s\n", listed(tc.vendorConsents.ids()).c_str());
    std::printf(
        "  every purpose 1 to 10 given: %s\n",
        quillet::QLTCMPUtils::allPurposesGiven(
            tc.purposeConsents.ids(), std::vector<std::int64_t>{1, 2, 3, 4, 5, 6, 7, 8, 9, 10})
            ? "yes"
            : "no");
    for (const auto& warning : tc.warnings)
      std::printf("  warning: %s\n", warning.c_str());
  }
  return status;
}
