// Every record reader on the documents of testdata/model-documents.txt, each result written out
// whole with the log lines it caused, against testdata/golden/model-documents.txt.

#include <thread>

#include <gtest/gtest.h>

#include "quillet/base/IdList.h"
#include "quillet/model/BrandingConfig.h"
#include "quillet/model/ConsentSelections.h"
#include "quillet/model/DeviceStorageDisclosure.h"
#include "quillet/model/PurposeModel.h"
#include "quillet/model/StartDocument.h"
#include "quillet/model/VendorList.h"
#include "quillet/model/VendorModel.h"
#include "quillet/model/VendorModelStart.h"

#include "support/LogCapture.h"
#include "support/TestData.h"

namespace quillet {
namespace {

template <class T>
std::string text(const std::optional<T>& value) {
  if (!value) return "-";
  if constexpr (std::is_same_v<T, std::string>) {
    return "\"" + *value + "\"";
  } else if constexpr (std::is_same_v<T, std::int64_t>) {
    return std::to_string(*value);
  } else {
    std::string out = "[";
    for (const auto& id : *value)
      out += (out.size() > 1 ? "," : "") + std::to_string(id);
    return out + "]";
  }
}
std::string text(const std::vector<std::int64_t>& ids) {
  return text(std::optional(ids));
}

std::string config(const boost::json::object& json) {
  const auto c = BrandingConfig::init(json);
  if (!c) return "no configuration\n";
  return "logo " + text(c->logoUrl()) + " colour " + text(c->brandColor()) + " privacy " +
         text(c->privacyUrl()) + " layout " + text(c->layout()) + " text " + text(c->bannerText()) +
         "\nreject " + std::to_string(c->showRejectButton()) + " customise " +
         std::to_string(c->showCustomizeButton()) + " accept " + text(c->acceptButtonText()) +
         " reject " + text(c->rejectButtonText()) + " manage " + text(c->manageButtonText()) +
         " link " + text(c->customizeLinkId()) + "\nvendors " + text(c->selectedVendorIds()) +
         " purposes " + text(c->selectedPurposesIds()) + " list version " +
         text(c->vendorListVersion()) + " config version " + text(c->configVersion()) +
         " country " + text(c->publisherCC()) + "\n";
}

// Each record on a line; a record whose keyed form does not read back as itself says so.
template <class Model>
std::string records(const std::vector<Model>& models) {
  std::string out;
  for (const auto& m : models) {
    out += std::to_string(m.id()) + " \"" + m.name() + "\"";
    if constexpr (std::is_same_v<Model, PurposeModel>) {
      out += " " + text(m.description());
    } else {
      out +=
          " " + text(m.policyUrl()) + " " + text(m.purposes()) + " li " + text(m.legIntPurposes());
    }
    const auto back = Model::fromJson(m.toJson());
    out += back && *back == m ? "\n" : " (keyed form differs)\n";
  }
  return out;
}

std::string disclosure(const Result<DeviceStorageDisclosure>& d) {
  if (!d) return "refused: " + d.error() + "\n";
  std::string out = d->disclosures ? "" : "no disclosures\n";
  for (const auto& e : d->disclosures.value_or(std::vector<DeviceStorageDisclosure::Entry>{})) {
    out += "\"" + e.identifier + "\" " + e.type + " " + std::to_string(e.maxAgeSeconds) + " s" +
           (e.cookieRefresh ? " refreshed" : "") + " " + text(e.purposes) + " domains";
    for (const auto& domain : e.domains)
      out += " \"" + domain + "\"";
    out += "\n";
  }
  if (!d->domains) return out + "no domains\n";
  for (const auto& domain : *d->domains)
    out += "domain \"" + domain.domain + "\" use " + text(domain.use) + "\n";
  return out;
}

std::string selections(const boost::json::object& json) {
  const auto loose = ConsentSelections::init(json);
  std::string out = "init " + text(loose->purposeIds) + " " + text(loose->vendorIds) + "\n";
  const auto keyed = ConsentSelections::fromJson(json);
  if (!keyed) return out + "keyed: " + keyed.error() + "\n";
  const bool same = ConsentSelections::fromJson(keyed->toJson()).value() == *keyed;
  return out + "keyed " + Json::print(keyed->toJson()) + (same ? "\n" : " (keyed form differs)\n");
}

std::string jsonReaders(const boost::json::object& json) {
  std::string out;
  for (const auto& [key, value] : json) {
    std::vector<std::int64_t> appended{0};
    Json::appendExactIntegerArray(&value, appended);
    out += std::string(key) + ": exact " + text(Json::exactInteger(&value)) + " truncated " +
           text(Json::truncatedInteger(&value)) + " element " + text(Json::idListElement(&value)) +
           " array " + text(Json::exactIntegerArray(&value)) + " after 0 " + text(appended) +
           " members " + text(Json::integerMembers(&value)) + "\n";
  }
  return out;
}

// Each vendor's declared lists as the facts hold them, which must be what the document gives.
std::string declarations(const boost::json::object& json, const VendorList::Facts& f) {
  std::string out;
  std::vector<std::int64_t> probes = f.vendorIds;
  probes.insert(probes.end(), {-1, 0, 4, 65537});
  std::ranges::sort(probes);
  probes.erase(std::unique(probes.begin(), probes.end()), probes.end());
  for (const auto id : probes) {
    for (const auto list :
         {VendorList::Facts::List::purposes, VendorList::Facts::List::legIntPurposes}) {
      const char* key = list == VendorList::Facts::List::purposes ? "purposes" : "legIntPurposes";
      const auto held = f.declared(id, list);
      const auto read = VendorList::declared(VendorList::vendors(json), id, key);
      EXPECT_EQ(held.has_value(), read.has_value()) << id << " " << key;
      if (held && read) {
        EXPECT_TRUE(std::ranges::equal(*held, *read)) << id << " " << key;
      }
      if (held && !held->empty()) {
        out += std::to_string(id) + " " + key + " " +
               text(std::vector<std::int64_t>(held->begin(), held->end())) + "\n";
      }
    }
  }
  return out;
}

// Each vendor's raw entry is the member under its decimal id, or none.
void expectRawEntries(const boost::json::object& json, const std::vector<VendorModel>& vendors) {
  const auto gvl = std::make_shared<const boost::json::object>(json);
  const auto raw = VendorList::entriesOf(gvl, vendors);
  ASSERT_EQ(raw.size(), vendors.size());
  for (std::size_t i = 0; i < vendors.size(); ++i) {
    const auto id = std::to_string(vendors[i].id());
    EXPECT_EQ(raw[i].get(), Json::object(Json::member(VendorList::vendors(*gvl), id))) << id;
  }
}

// A start's two steps give what `parse` gives: the ids and declared purposes first, with the log
// lines `parse` writes, then the models, with none.
void expectTwoSteps(const boost::json::object& json, testing::LogCapture& log) {
  const auto config = BrandingConfig::init(json).value();
  log.clear();
  const auto parsed = VendorModel::parse(json, config);
  const auto parseLines = log.lines();
  log.clear();
  const auto outline = VendorModels::outline(json, config.selectedVendorIds());
  EXPECT_EQ(log.lines(), parseLines);
  std::vector<std::int64_t> ids;
  std::vector<std::int64_t> declared;
  for (const auto& vendor : parsed) {
    ids.push_back(vendor.id());
    declared.insert(declared.end(), vendor.purposes().begin(), vendor.purposes().end());
    declared.insert(declared.end(), vendor.legIntPurposes().begin(), vendor.legIntPurposes().end());
  }
  EXPECT_EQ(outline.ids, ids);
  EXPECT_EQ(outline.declaredPurposes, IdList::sortedUnique(declared));
  log.clear();
  EXPECT_EQ(VendorModels::models(json, config.selectedVendorIds()), parsed);
  EXPECT_TRUE(log.lines().empty());
}

std::string facts(const boost::json::object& json) {
  const auto f = VendorList::facts(json);
  return "vendors " + text(f.vendorIds) + " largest " + std::to_string(f.largestVendorId()) +
         " version " + std::to_string(f.vendorListVersion) + " policy " +
         std::to_string(f.policyVersion) + " feature ids " + text(f.specialFeatureIds) + " keys " +
         text(f.specialFeatureKeys) + "\n" + declarations(json, f);
}

// A real vendor list: its counts, every vendor without a selection or with an empty one, and the
// records a selection with a repeated and an unknown id gives.
std::string realList(const std::string& file) {
  const auto gvl = testing::jsonObject(testing::testdataText(file));
  const auto purposes = PurposeModel::parse(gvl);
  std::string out = std::to_string(purposes.size()) + " purposes, first " +
                    records(std::vector{purposes.front()});
  for (const char* selection : {"{}", R"({"selectedVendorIds": []})"}) {
    const auto config = BrandingConfig::init(testing::jsonObject(selection)).value();
    out +=
        std::to_string(VendorModel::parse(gvl, config).size()) + " vendors for " + selection + "\n";
  }
  const auto config =
      BrandingConfig({.selectedVendorIds = std::vector<std::int64_t>{755, 8, 999999, 8}});
  return out + records(VendorModel::parse(gvl, config));
}

TEST(Model, EveryDocumentReadsAsItsGoldenRecords) {
  std::string all;
  for (const auto& [title, body] : testing::cases("model-documents.txt")) {
    const std::string kind = title.substr(0, title.find(':'));
    all += "== " + title + "\n";
    if (kind.starts_with("list ")) {
      all += realList(kind.substr(5));
      continue;
    }
    if (kind.starts_with("disclosure file ")) {
      all += disclosure(DeviceStorageDisclosure::decode(testing::testdataText(kind.substr(16))));
      continue;
    }
    testing::LogCapture log;
    if (kind == "disclosure") {
      all += disclosure(DeviceStorageDisclosure::decode(body));
    } else if (kind == "keyed purpose" || kind == "keyed vendor") {
      const auto json = Json::parse(body).value();
      const auto one = [](const auto& read) {
        if (!read) return "refused: " + read.error() + "\n";
        return records(std::vector{*read}) + Json::print(read->toJson()) + "\n";
      };
      all += kind == "keyed purpose" ? one(PurposeModel::fromJson(json))
                                     : one(VendorModel::fromJson(json));
    } else {
      const auto json = testing::jsonObject(body);
      if (kind == "config") all += config(json);
      if (kind == "purposes") all += records(PurposeModel::parse(json));
      if (kind == "vendors") {
        const auto vendors = VendorModel::parse(json, *BrandingConfig::init(json));
        all += records(vendors);
        expectRawEntries(json, vendors);
      }
      if (kind == "selections") all += selections(json);
      if (kind == "json") all += jsonReaders(json);
      if (kind == "facts") all += facts(json);
    }
    for (const auto& line : log.lines())
      all += "log " + line + "\n";
    if (kind == "vendors") expectTwoSteps(testing::jsonObject(body), log);
  }
  EXPECT_TRUE(testing::matchesGolden("model-documents.txt", all));
  EXPECT_FALSE(Json::parse("{} trailing") || Json::parse("") || Json::parse("{"));
  EXPECT_EQ(BrandingConfig({.publisherCC = "fr"}).publisherCC(), "FR");
}

// A document parsed into its own blocks is the document the heap parse gives, for every document
// above, the real lists (the large one twice: again in the pages the first left), one with values
// too large for a block and texts that are no object or no JSON, and the check without a document
// says object exactly when it is one; parts copied out of it outlive it, and grow on another
// thread while it is read (a data race there is for ThreadSanitizer).
TEST(Model, ADocumentInBlocksIsTheHeapDocumentAndItsCopiesStandAlone) {
  std::vector<std::string> texts = {testing::testdataText("gvl-v3-106.json"),
                                    testing::testdataText("gvl-v3-106.json"),
                                    testing::testdataText("gvl-v2-224.json"),
                                    R"({"a": ")" + std::string(70000, 'x') + R"(", "b": [)"};
  for (int i = 0; i < 50000; ++i)  // 1.5 MB: two large pages, where the real list takes one
    texts.back() += std::to_string(i) + ",\"" + std::string(i % 40, 'y') + "\",";
  texts.back() += "{}]}";
  for (const auto& [title, body] : testing::cases("model-documents.txt"))
    texts.push_back(body);
  const std::string deepest = std::string(31, '[') + std::string(31, ']');  // 32 levels in {}
  texts.insert(texts.end(), {" {\"a\": {}} ", "[{}]", "\"{}\"", "12", "-1.5e3", "true", "null", "",
                             "{} x", "{}{}", "{\"\xff\": 1}", "{\"a\": 1,}",
                             "{\"a\": " + deepest + "}", "{\"a\": [" + deepest + "]}"});
  for (const auto& text : texts) {
    const auto heap = Json::parse(text);
    ASSERT_EQ(heap, Json::parseDocument(text)) << text.substr(0, 80);
    // In pieces that split keys, strings, numbers and escapes anywhere.
    Json::DocumentReader reader;
    Json::ObjectTextCheck check;
    for (std::size_t at = 0, length = 1; at < text.size(); at += length, length = length % 7 + 1) {
      reader.read(std::string_view(text).substr(at, length));
      check.read(std::string_view(text).substr(at, length));
    }
    ASSERT_EQ(heap, reader.finish()) << text.substr(0, 80);
    ASSERT_EQ(heap && heap->is_object(), check.finish()) << text.substr(0, 80);
  }
  EXPECT_FALSE(Json::parseDocument("{} trailing") || Json::parseDocument("{\"a\": [1, "));
  auto document = std::make_shared<const boost::json::value>(*Json::parseDocument(texts[3]));
  boost::json::value copy = document->at("b");
  std::thread grower([&copy] {
    for (int i = 0; i < 1000; ++i)
      copy.as_array().emplace_back(std::string(100, 'z'));
  });
  for (int i = 0; i < 50; ++i) {
    const boost::json::value mine = document->at("a");
    EXPECT_EQ(mine.as_string().size(), 70000U);
  }
  grower.join();
  document.reset();
  EXPECT_EQ(copy.as_array().size(), 101001U);
  EXPECT_EQ(copy.as_array()[39999].as_string(), std::string(39, 'y'));
}

// What the start reads of a vendor list, written out with the log lines it causes.
std::string startReads(const boost::json::object& json) {
  const testing::LogCapture log;
  std::string out = facts(json) + records(PurposeModel::parse(json));
  const auto gvl = std::make_shared<const boost::json::object>(json);
  for (const auto& config :
       {BrandingConfig({}),
        BrandingConfig({.selectedVendorIds = std::vector<std::int64_t>{755, 8, 1, 2}})}) {
    const auto vendors = VendorModel::parse(json, config);
    out += records(vendors);
    for (const auto& entry : VendorList::entriesOf(gvl, vendors)) {
      const auto* features = entry ? Json::member(*entry, "specialFeatures") : nullptr;
      out += features ? Json::print(*features) : "-";
    }
  }
  if (const auto* stacks = Json::member(json, "stacks")) out += Json::print(*stacks);
  for (const auto& line : log.lines())
    out += "\nlog " + line;
  return out;
}

// The start document reads as the whole one for all that the start reads, on the real lists, the
// vendor documents above and texts that the pruning could get wrong: repeated members, "privacy"
// that is no string or repeated, "urls" with other elements, errors and depth inside a member
// that is left out. It takes the texts the document reader takes, read in pieces that split keys
// and strings anywhere, and it leaves out most of a real list.
TEST(Model, TheStartDocumentReadsAsTheWholeOne) {
  std::vector<std::string> texts = {testing::testdataText("gvl-v3-106.json"),
                                    testing::testdataText("gvl-v2-224.json"),
                                    testing::testdataText("vendor-list.json")};
  for (const auto& [title, body] : testing::cases("model-documents.txt")) {
    if (title.starts_with("vendors") || title.starts_with("facts")) texts.push_back(body);
  }
  const std::string entry =
      R"({"id": 1, "name": "a", "purposes": [1], "dataRetention": {"a": [1, {"b": 2}]}, )"
      R"("urls": [{"langId": "en", "privacy": 5}, {"privacy": "p1", "legIntClaim": "x"}, )"
      R"({"privacy": "p2"}], "purposes": [2, 3], "specialFeatures": [1], "x": null})";
  const std::string privacyRules =
      R"({"vendors": {"4": {"name": "c", "urls": [{"privacy": "p", "privacy": null}, )"
      R"({"privacy": {"x": "y"}}, {"privacy": "q"}, {"privacy": "r"}]}}})";
  const std::string nested = std::string(28, '[') + std::string(28, ']');  // 32 levels in all
  texts.insert(
      texts.end(),
      {R"({"vendors": {"1": )" + entry + R"(, "2": )" + entry + R"(}, "stacks": {"vendors": )" +
           entry + "}}",
       R"({"vendors": {"3": {"id": 3, "name": "b", "urls": [{"privacy": "p"}, 3]}}})", privacyRules,
       R"({"vendors": {"5": {"name": "d", "urls": {"privacy": "p"}, "id": 5}, "6": 6}})",
       R"({"vendors": {"7": {"name": "e"", "urls": [{"privacy": "p
"}]}}})",
       R"({"vendors": {"8": {"name": "f"}}, "vendors": [{"id": 8, "name": "g", "x": 1}]})",
       R"({"vendors": {"9": {"name": "h", "x": )" + nested + "}}}",
       R"({"vendors": {"9": {"name": "h", "x": [)" + nested + "]}}}",
       R"({"vendors": {"9": {"name": "h", "x": [1,]}}})", R"([{"vendors": {}}])", "12", "", "{",
       "{} x"});
  for (const auto& text : texts) {
    const auto whole = Json::parse(text);
    VendorList::StartDocumentReader reader(text.size());
    for (std::size_t at = 0, length = 1; at < text.size(); at += length, length = length % 7 + 1)
      reader.read(std::string_view(text).substr(at, length));
    const auto start = reader.finish();
    ASSERT_EQ(whole.has_value(), start.has_value()) << text.substr(0, 80);
    if (!whole || !whole->is_object()) continue;
    EXPECT_EQ(startReads(whole->get_object()), startReads(start->as_object()))
        << text.substr(0, 80);
  }
  const auto start = [](const std::string& text) {
    VendorList::StartDocumentReader reader;
    reader.read(text);
    return Json::print(reader.finish().value());
  };
  EXPECT_LT(start(texts[0]).size(), texts[0].size() / 3);
  EXPECT_EQ(start(privacyRules),
            R"({"vendors":{"4":{"name":"c","urls":[{"privacy":null},{"privacy":{"x":"y"}},)"
            R"({"privacy":"q"},{}]}}})");
}

TEST(Model, SharedFactsAreReadOnceForEachDocument) {
  const auto document = [](const char* text) {
    return std::make_shared<const boost::json::object>(Json::parse(text)->as_object());
  };
  const auto one = document(R"({"vendors": {"1": {"purposes": [1]}}, "vendorListVersion": 3})");
  const auto two = document(R"({"vendors": {"2": {}, "5": {}}})");
  const auto first = VendorList::sharedFacts(one);
  EXPECT_EQ(VendorList::sharedFacts(one), first);
  EXPECT_EQ(VendorList::sharedFacts(two)->vendorIds, (std::vector<std::int64_t>{2, 5}));
  EXPECT_EQ(VendorList::sharedFacts(one)->vendorIds, std::vector<std::int64_t>{1});
  EXPECT_EQ(VendorList::sharedFacts(one)->vendorListVersion, 3);
  // A pointer into a document shares its ownership but is another document.
  const std::shared_ptr<const boost::json::object> vendors(one, &one->at("vendors").as_object());
  EXPECT_TRUE(VendorList::sharedFacts(vendors)->vendorIds.empty());
  EXPECT_EQ(VendorList::sharedFacts(nullptr), nullptr);
}

}  // namespace
}  // namespace quillet
