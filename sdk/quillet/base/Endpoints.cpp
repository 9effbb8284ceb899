#include "quillet/base/Endpoints.h"

#include "quillet/base/BuiltInEndpoints.h"

namespace quillet {

Endpoints Endpoints::builtIn() {
  return Endpoints{.cdnBaseUrl = kBuiltInCdnBaseUrl,
                   .consentApiBaseUrl = kBuiltInConsentApiBaseUrl};
}

}  // namespace quillet
