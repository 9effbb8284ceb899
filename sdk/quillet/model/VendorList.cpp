#include "quillet/model/VendorList.h"

#include <algorithm>
#include <array>
#include <charconv>
#include <iterator>
#include <mutex>

#include "quillet/base/NeverDestroyed.h"
#include "quillet/base/Text.h"
#include "quillet/model/Json.h"
#include "quillet/model/VendorModel.h"

namespace quillet::VendorList {

const boost::json::object& vendors(const boost::json::object& gvl) {
  static const NeverDestroyed<boost::json::object> kNone;  // outlives threads
  const boost::json::object* found = Json::object(Json::member(gvl, "vendors"));
  return found != nullptr ? *found : kNone.get();
}

std::vector<std::int64_t> integerKeys(const boost::json::object& object) {
  std::vector<std::int64_t> ids;
  for (const auto& member : object) {
    if (const auto id = Text::parseInteger(member.key())) ids.push_back(*id);
  }
  std::sort(ids.begin(), ids.end());
  return ids;
}

namespace {

using KeyedEntry = std::pair<std::int64_t, const boost::json::object*>;
using Digits = std::array<char, 24>;

// `id` as `std::to_string` writes it, held in `digits`.
std::string_view decimal(std::int64_t id, Digits& digits) {
  const char* const end = std::to_chars(digits.begin(), digits.end(), id).ptr;
  return {digits.data(), static_cast<std::size_t>(end - digits.data())};
}

// The entries of `vendors` under keys written as `std::to_string` writes their ids (null for an
// entry that is not an object), ascending by id: what a look-up by each id's key finds, gathered
// in one pass. `ids` gets every key that reads as an integer, ascending.
std::vector<KeyedEntry> entriesByKey(const boost::json::object& vendors,
                                     std::vector<std::int64_t>& ids) {
  std::vector<KeyedEntry> entries;
  entries.reserve(vendors.size());
  ids.reserve(vendors.size());
  for (const auto& member : vendors) {
    const std::string_view key = member.key();
    const auto id = Text::parseInteger(key);
    if (!id) continue;
    ids.push_back(*id);
    Digits digits{};
    if (decimal(*id, digits) == key) entries.emplace_back(*id, member.value().if_object());
  }
  const auto byId = [](const KeyedEntry& a, const KeyedEntry& b) { return a.first < b.first; };
  if (!std::is_sorted(entries.begin(), entries.end(), byId))
    std::sort(entries.begin(), entries.end(), byId);
  if (!std::is_sorted(ids.begin(), ids.end())) std::sort(ids.begin(), ids.end());
  return entries;
}

}  // namespace

Facts facts(const boost::json::object& gvl) {
  Facts out;
  const std::vector<KeyedEntry> entries = entriesByKey(vendors(gvl), out.vendorIds);
  out.vendorListVersion = Json::exactInteger(Json::member(gvl, "vendorListVersion")).value_or(1);
  out.policyVersion = Json::exactInteger(Json::member(gvl, "tcfPolicyVersion")).value_or(1);
  out.specialFeatureIds = specialFeatureIds(gvl);
  out.specialFeatureKeys = specialFeatureKeys(gvl);
  auto next = entries.begin();
  std::int64_t previous = 0;
  for (const auto vendorId : out.vendorIds) {
    if (!out.declared_.empty() && vendorId == previous) continue;  // "7" and "07"
    previous = vendorId;
    Facts::Declared entry{vendorId, {0, 0}, {-1, -1}};
    // What `declared` reads: the entry under the id's key, and both lists in one pass over it.
    while (next != entries.end() && next->first < vendorId)
      ++next;
    const boost::json::object* vendor =
        next != entries.end() && next->first == vendorId ? next->second : nullptr;
    const boost::json::value* lists[2] = {nullptr, nullptr};  // none without an entry
    if (vendor != nullptr) {
      for (const auto& member : *vendor) {
        if (member.key() == "purposes") {
          lists[0] = &member.value();
        } else if (member.key() == "legIntPurposes") {
          lists[1] = &member.value();
        }
      }
    }
    for (std::size_t list = 0; list < 2; ++list) {
      const std::size_t at = out.declaredIds_.size();
      if (!Json::appendExactIntegerArray(lists[list], out.declaredIds_)) continue;
      entry.at[list] = static_cast<std::uint32_t>(at);
      entry.count[list] = static_cast<std::int32_t>(out.declaredIds_.size() - at);
    }
    out.declared_.push_back(entry);
  }
  // Real lists number their vendors from 1 to a few thousand: an index by id costs little.
  constexpr std::int64_t kLargestIndexed = 1 << 16;
  if (!out.declared_.empty() && out.declared_.front().vendorId >= 0 &&
      out.declared_.back().vendorId <= kLargestIndexed) {
    out.byId_.resize(static_cast<std::size_t>(out.declared_.back().vendorId) + 1);
    for (std::size_t i = 0; i < out.declared_.size(); ++i)
      out.byId_[static_cast<std::size_t>(out.declared_[i].vendorId)] =
          static_cast<std::uint32_t>(i + 1);
  }
  return out;
}

std::shared_ptr<const Facts> sharedFacts(const std::shared_ptr<const boost::json::object>& gvl) {
  if (!gvl) return nullptr;
  struct Memo {
    std::mutex mutex;
    // The owner and the address: an entry that shares its list's ownership is not its list.
    std::weak_ptr<const boost::json::object> owner;
    const boost::json::object* document = nullptr;
    std::shared_ptr<const Facts> facts;
  };
  static Memo* const memo = new Memo;  // outlives threads
  // A weak owner that is still held never names a later document: its control block lives on.
  const auto holds = [&] {
    return memo->document == gvl.get() && !memo->owner.owner_before(gvl) &&
           !gvl.owner_before(memo->owner);
  };
  {
    std::lock_guard lock(memo->mutex);
    if (holds()) return memo->facts;
  }
  auto read = std::make_shared<const Facts>(facts(*gvl));
  std::lock_guard lock(memo->mutex);
  if (holds()) return memo->facts;
  memo->owner = gvl;
  memo->document = gvl.get();
  memo->facts = read;
  return read;
}

std::optional<std::span<const std::int64_t>> Facts::declared(std::int64_t vendorId,
                                                             List list) const noexcept {
  auto entry = declared_.end();
  if (!byId_.empty()) {
    if (vendorId < 0 || static_cast<std::uint64_t>(vendorId) >= byId_.size()) return std::nullopt;
    const std::uint32_t at = byId_[static_cast<std::size_t>(vendorId)];
    if (at == 0) return std::nullopt;
    entry = declared_.begin() + (at - 1);
  } else {
    entry = std::lower_bound(declared_.begin(), declared_.end(), vendorId,
                             [](const Declared& d, std::int64_t id) { return d.vendorId < id; });
    if (entry == declared_.end() || entry->vendorId != vendorId) return std::nullopt;
  }
  const auto index = static_cast<std::size_t>(list);
  if (entry->count[index] < 0) return std::nullopt;
  return std::span<const std::int64_t>(declaredIds_)
      .subspan(entry->at[index], static_cast<std::size_t>(entry->count[index]));
}

std::int64_t entryId(const boost::json::object& entry, std::string_view key) {
  return entryId(Json::member(entry, "id"), key);
}

std::int64_t entryId(const boost::json::value* id, std::string_view key) {
  if (const auto exact = Json::exactInteger(id)) return *exact;
  return Text::parseInteger(key).value_or(0);
}

std::optional<std::vector<std::int64_t>> declared(const boost::json::object& vendors,
                                                  std::int64_t vendorId, std::string_view key) {
  const boost::json::object* entry = Json::object(Json::member(vendors, std::to_string(vendorId)));
  if (entry == nullptr) return std::nullopt;
  return Json::exactIntegerArray(Json::member(*entry, key));
}

std::vector<std::int64_t> specialFeatureKeys(const boost::json::object& gvl) {
  const boost::json::object* features = Json::object(Json::member(gvl, "specialFeatures"));
  return features != nullptr ? integerKeys(*features) : std::vector<std::int64_t>{};
}

std::vector<std::int64_t> specialFeatureIds(const boost::json::object& gvl) {
  const boost::json::value* features = Json::member(gvl, "specialFeatures");
  if (const boost::json::object* object = Json::object(features)) return integerKeys(*object);
  std::vector<std::int64_t> ids;
  if (const boost::json::array* array = Json::array(features)) {
    for (const auto& element : *array) {
      const boost::json::object* entry = element.if_object();
      if (entry == nullptr) continue;
      if (const auto id = Json::exactInteger(Json::member(*entry, "id"))) ids.push_back(*id);
    }
  }
  std::sort(ids.begin(), ids.end());
  return ids;
}

std::vector<const boost::json::object*> specialFeatures(const boost::json::object& gvl) {
  std::vector<const boost::json::object*> entries;
  const boost::json::value* features = Json::member(gvl, "specialFeatures");
  if (const boost::json::object* object = Json::object(features)) {
    for (const auto& member : *object) {
      if (const auto* entry = member.value().if_object()) entries.push_back(entry);
    }
  } else if (const boost::json::array* array = Json::array(features)) {
    for (const auto& element : *array) {
      if (const auto* entry = element.if_object()) entries.push_back(entry);
    }
  }
  return entries;
}

std::vector<std::shared_ptr<const boost::json::object>> entriesOf(
    const std::shared_ptr<const boost::json::object>& gvl,
    const std::vector<VendorModel>& vendors) {
  std::vector<std::int64_t> ids;
  ids.reserve(vendors.size());
  for (const auto& vendor : vendors)
    ids.push_back(vendor.id());
  return entriesOf(gvl, ids);
}

std::vector<std::shared_ptr<const boost::json::object>> entriesOf(
    const std::shared_ptr<const boost::json::object>& gvl, std::span<const std::int64_t> ids) {
  std::vector<std::shared_ptr<const boost::json::object>> entries;
  if (!gvl) return entries;
  const boost::json::object& all = VendorList::vendors(*gvl);
  entries.reserve(ids.size());
  // Models keep the members' order, so a vendor's entry is usually the member after the last one
  // found; keys are unique, so that member is the one a look-up would find.
  auto next = all.begin();
  for (const auto id : ids) {
    Digits digits{};
    const std::string_view key = decimal(id, digits);
    const auto found = next != all.end() && next->key() == key ? next : all.find(key);
    const boost::json::value* value = nullptr;
    if (found != all.end()) {
      value = &found->value();
      next = std::next(found);
    }
    // Empty for a vendor without an entry under its id, so that entry i stays vendor i's.
    const auto* entry = Json::object(value);
    entries.push_back(entry != nullptr ? std::shared_ptr<const boost::json::object>(gvl, entry)
                                       : nullptr);
  }
  return entries;
}

}  // namespace quillet::VendorList
