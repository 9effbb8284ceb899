// The facade's start-up applying an arbitrary configuration and vendor list (separated by a line
// "--"), served by an in-process HTTP client. Inputs whose vendor list repeats a legitimate-
// interest purpose of a vendor reach a defined stop and are skipped, as are reject-all strings
// for a vendor list without vendor ids or with a negative version or policy version.

#include <algorithm>
#include <condition_variable>
#include <deque>
#include <future>
#include <mutex>
#include <set>
#include <thread>

#include "quillet/base/Platform.h"
#include "quillet/core/QuilletCMP.h"
#include "quillet/model/Json.h"
#include "quillet/model/VendorList.h"
#include "quillet/network/HttpClient.h"
#include "quillet/network/QLTAPIServer.h"
#include "quillet/storage/MemoryKeyValueStore.h"

#include "FuzzInput.h"
#include "support/ConsentWalk.h"

namespace {

using namespace quillet;

// Answers the requests in order on one worker thread, which the destructor joins: the
// configuration and the vendor list from the current input, anything else (the posts) with an
// empty 200.
class ServedInput final : public HttpClient {
 public:
  ServedInput() : worker_([this] { run(); }) {}
  ~ServedInput() override {
    {
      std::lock_guard lock(mutex_);
      stopping_ = true;
    }
    wake_.notify_all();
    worker_.join();
  }

  void serve(std::string config, std::string gvl) {
    std::lock_guard lock(mutex_);
    config_ = std::move(config);
    gvl_ = std::move(gvl);
  }

  void send(HttpRequest request, HttpCompletion completion) override {
    {
      std::lock_guard lock(mutex_);
      queue_.emplace_back(std::move(request), std::move(completion));
    }
    wake_.notify_all();
  }

 private:
  void run() {
    std::unique_lock lock(mutex_);
    while (true) {
      wake_.wait(lock, [&] { return stopping_ || !queue_.empty(); });
      if (queue_.empty()) return;
      auto [request, completion] = std::move(queue_.front());
      queue_.pop_front();
      std::string body;
      if (request.url.ends_with("/banner_config.json")) body = config_;
      if (request.url.ends_with("/gvl.json")) body = gvl_;
      lock.unlock();
      completion(Bytes(body.begin(), body.end()), HttpResponse{200, {}}, std::nullopt);
      lock.lock();
    }
  }

  std::mutex mutex_;
  std::condition_variable wake_;
  std::deque<std::pair<HttpRequest, HttpCompletion>> queue_;
  std::string config_;
  std::string gvl_;
  bool stopping_ = false;
  std::thread worker_;
};

// True when a vendor of the list names a legitimate-interest purpose twice.
bool repeatsLegitimateInterest(std::string_view gvlText) {
  const auto gvl = Json::parse(gvlText);
  if (!gvl || !gvl->is_object()) return false;
  for (const auto& member : VendorList::vendors(gvl->get_object())) {
    const auto* vendor = Json::object(&member.value());
    if (vendor == nullptr) continue;
    const auto ids = Json::exactIntegerArray(Json::member(*vendor, "legIntPurposes"));
    if (!ids) continue;
    if (std::set<std::int64_t>(ids->begin(), ids->end()).size() != ids->size()) return true;
  }
  return false;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  static const auto client = std::make_shared<ServedInput>();
  const auto parts = fuzz::split(fuzz::text(data, size), "\n--\n", 2);
  if (repeatsLegitimateInterest(parts[1])) return 0;

  client->serve(std::string(parts[0]), std::string(parts[1]));
  Platform::install({.keyValueStore = std::make_shared<MemoryKeyValueStore>(),
                     .httpClient = client,
                     .endpoints = Endpoints{"https://cdn.test/", "https://api.test"}});
  QLTAPIServer::clearCache();
  testing::emptyConsentStores();

  const auto facade = QuilletCMP::create();
  std::promise<void> started;
  facade->initialize("fuzz", [&] { started.set_value(); });
  started.get_future().wait();

  if (facade->isConfigLoaded()) {
    if (facade->rawVendors().size() != facade->vendors().size())
      fuzz::fail("the raw vendor entries do not match the vendors");
    // A vendor list without vendor ids, with a negative largest one, or with a negative version
    // or policy version reaches the encoder's defined stop: skipped.
    const auto ids = VendorList::integerKeys(VendorList::vendors(*facade->gvl()));
    const auto facts = VendorList::facts(*facade->gvl());
    if (!ids.empty() && *std::max_element(ids.begin(), ids.end()) > 0 &&
        facts.vendorListVersion >= 0 && facts.policyVersion >= 0) {
      const auto rejectAll = facade->makeTCStringRejectAll();
      if (!rejectAll || rejectAll->empty()) fuzz::fail("no reject-all string for a loaded list");
    }
  }
  return 0;
}
