#include "quillet/network/Endpoints.h"

#include "quillet/network/BuiltInEndpoints.h"

namespace quillet {

Endpoints Endpoints::builtIn() {
  return Endpoints{.cdnBaseUrl = kBuiltInCdnBaseUrl,
                   .consentApiBaseUrl = kBuiltInConsentApiBaseUrl};
}

}  // namespace quillet
