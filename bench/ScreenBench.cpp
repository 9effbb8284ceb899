// Rendering the consent screens for the bundled real vendor list (987 vendors, 45 stacks).

#include <benchmark/benchmark.h>

#include "quillet/base/MainQueue.h"
#include "quillet/base/Platform.h"
#include "quillet/model/Json.h"
#include "quillet/model/VendorList.h"
#include "quillet/storage/MemoryKeyValueStore.h"
#include "quillet/ui/CMPBannerViewController.h"
#include "quillet/ui/ScreenHost.h"
#include "quillet/ui/SecondLayerViewController.h"
#include "quillet/ui/VendorsPageViewController.h"

#include "BenchData.h"

namespace quillet {
namespace {

class Host final : public ScreenHost {
 public:
  bool canPresent() const override { return true; }
  void openUrl(const std::string&) override {}

 protected:
  void update(const Update&) override {}
};

// Every purpose selected, so that every stack that names only purposes is kept.
ScreenContent realContent() {
  std::vector<std::int64_t> purposes;
  for (std::int64_t p = 1; p <= 11; ++p)
    purposes.push_back(p);
  const BrandingConfig config({.brandColor = "#1A73E8",
                               .showRejectButton = true,
                               .showCustomizeButton = true,
                               .selectedPurposesIds = purposes});
  auto gvl = std::make_shared<const boost::json::object>(
      Json::parse(bench::testdataText("gvl-v3-106.json")).value().as_object());
  auto vendors = VendorModel::parse(*gvl, config);
  auto raw = VendorList::entriesOf(gvl, vendors);
  return ScreenContent{
      config, PurposeModel::parse(*gvl), std::move(vendors), std::move(raw), gvl, std::nullopt, {},
      {}};
}

void BM_BannerDocument(benchmark::State& state) {
  const CMPBannerViewController banner(realContent(), {});
  const auto kept = CMPBannerViewController::keptStacks(
      banner.content().config, *banner.content().gvl, banner.content().rawVendors);
  for (auto _ : state) {
    benchmark::DoNotOptimize(banner.document());
  }
  state.counters["kept stacks"] = static_cast<double>(kept.size());
  state.counters["vendors"] = static_cast<double>(banner.content().vendors.size());
}
BENCHMARK(BM_BannerDocument)->Unit(benchmark::kMicrosecond);

// The second layer showing the vendors page: every vendor's row and switch.
void BM_VendorsPageDocument(benchmark::State& state) {
  Platform::install({.keyValueStore = std::make_shared<MemoryKeyValueStore>(),
                     .mainQueue = std::make_shared<RunLoop>()});
  const auto host = std::make_shared<Host>();
  const auto second = std::make_shared<SecondLayerViewController>(realContent());
  host->present(second, {});
  second->segmentChanged(1);
  for (auto _ : state) {
    benchmark::DoNotOptimize(second->document());
  }
  state.counters["vendors"] = static_cast<double>(second->vendorsVC().vendors.size());
  state.counters["bytes"] = static_cast<double>(second->document().size());
  Platform::install({});
}
BENCHMARK(BM_VendorsPageDocument)->Unit(benchmark::kMillisecond);

}  // namespace
}  // namespace quillet
