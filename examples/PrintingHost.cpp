// A minimal host: installs a screen host that prints what it is asked to show, starts the
// library against the given endpoints, and answers the banner with "accept all".
//
//   printing_host CDN_BASE_URL CONSENT_API_URL SETTINGS_ID
//
// A real host draws `document()` in its web view, draws `controls()` natively, and calls
// `decidePolicy` from its navigation delegate and `perform` from its buttons.

#include <cstdio>
#include <memory>
#include <string>

#include "quillet/base/Endpoints.h"
#include "quillet/base/MainQueue.h"
#include "quillet/base/Platform.h"
#include "quillet/core/QuilletCMP.h"
#include "quillet/storage/ConsentStorage.h"
#include "quillet/storage/MemoryKeyValueStore.h"
#include "quillet/ui/ScreenHost.h"

namespace {

class PrintingHost final : public quillet::ScreenHost {
 public:
  bool canPresent() const override { return true; }
  void openUrl(const std::string& url) override { std::printf("open %s\n", url.c_str()); }

 protected:
  void update(const Update& update) override {
    if (update.kind != Update::Kind::presented) return;
    const auto screen = topScreen();
    std::printf("presented \"%s\": a document of %zu bytes\n", screen->title().c_str(),
                screen->document().size());
    for (const auto& control : screen->controls()) {
      if (!control.title.empty()) std::printf("  button \"%s\"\n", control.title.c_str());
    }
    // The user taps the first button.
    for (const auto& control : screen->controls()) {
      if (!control.action.empty()) {
        std::printf("tapping \"%s\"\n", control.title.c_str());
        screen->perform(control.action);
        return;
      }
    }
  }
};

}  // namespace

int main(int argc, char** argv) {
  if (argc != 4) {
    std::fprintf(stderr, "usage: printing_host CDN_BASE_URL CONSENT_API_URL SETTINGS_ID\n");
    return 2;
  }
  const auto mainQueue = std::make_shared<quillet::RunLoop>();
  quillet::Platform::install({.keyValueStore = std::make_shared<quillet::MemoryKeyValueStore>(),
                              .endpoints = quillet::Endpoints{argv[1], argv[2]},
                              .mainQueue = mainQueue,
                              .screenHost = std::make_shared<PrintingHost>()});
  quillet::QuilletCMP::shared().initialize(argv[3], [mainQueue] {
    const auto stored = quillet::ConsentStorage::getTCString();
    std::printf("start-up complete; stored TC String: %s\n", stored.value_or("(none)").c_str());
    mainQueue->stop();
  });
  mainQueue->run();
  quillet::Platform::install({});
  return 0;
}
