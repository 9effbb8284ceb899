// quillet inapp: the IAB's in-app values of a TC String as one JSON object.

#include <boost/json.hpp>

#include "quillet/codec/InAppValues.h"

#include "Commands.h"
#include "JsonText.h"

namespace quillet::cli {

int runInApp(const InAppOptions& options, std::ostream& out, std::ostream& err) {
  const auto values = inAppValues(options.tcString, {.gdprApplies = options.gdprApplies,
                                                     .cmpSdkId = options.cmpSdkId,
                                                     .cmpSdkVersion = options.cmpSdkVersion});
  if (!values) {
    err << "quillet inapp: " << values.error().message() << "\n";
    return 1;
  }
  boost::json::object object;
  for (const InAppValue& entry : *values) {
    std::visit([&](const auto& v) { object[entry.key] = v; }, entry.value);
  }
  out << prettyJson(object) << "\n";
  return 0;
}

}  // namespace quillet::cli
