#include "gateway/lun_identification.h"

#include <fcntl.h>
#include <unistd.h>

#include <vector>

#include "gateway/san_filesystem.h"
#include "platform/clock.h"
#include "platform/entry_name.h"
#include "platform/log.h"
#include "platform/paths.h"
#include "platform/unique_fd.h"
#include "plist/format.h"

namespace velm {

ReadPeriod readForPeriod(int fd, char* buffer, std::size_t size, std::uint64_t deadlineMicros,
                         const std::atomic<bool>* stop) {
  ReadPeriod period;
  while (clock().monotonicMicros() < deadlineMicros) {
    if (stop && stop->load(std::memory_order_relaxed)) break;
    ++period.reads;
    ssize_t n = ::read(fd, buffer, size);
    if (n > 0) period.bytes += static_cast<std::uint64_t>(n);
    if (n >= 0 && static_cast<std::size_t>(n) == size) continue;
    if (::lseek(fd, 0, SEEK_SET) != 0) {
      // Nothing to read here (the device could not be opened, or can't go back): the period is
      // waited out rather than spun through, and the mark still decides when to end.
      std::uint64_t now = clock().monotonicMicros();
      if (now < deadlineMicros && !(stop && stop->load()))
        clock().sleepMicros(deadlineMicros - now);
      break;
    }
  }
  return period;
}

LunIdentification::~LunIdentification() {
  closing_ = true;
  std::scoped_lock lock(readersLock_);
  for (Reader& r : readers_) r.thread.join();
}

void LunIdentification::joinEndedReaders() {
  for (auto it = readers_.begin(); it != readers_.end();) {
    if (!it->done->load()) {
      ++it;
      continue;
    }
    it->thread.join();
    it = readers_.erase(it);
  }
}

void LunIdentification::startReader(const std::string& device) {
  std::scoped_lock lock(readersLock_);
  joinEndedReaders();
  Reader& r = readers_.emplace_back();
  r.thread = std::thread([this, device, done = r.done] {
    identifyBSDDevice(device);
    done->store(true);
  });
}

std::size_t LunIdentification::runningReaders() {
  std::scoped_lock lock(readersLock_);
  joinEndedReaders();
  return readers_.size();
}

void LunIdentification::identifyBSDDevice(const std::string& device) {
  if (device.empty()) return;
  // Device names come from the label tool; none may lead out of /dev.
  if (!checkEntryName(__func__, "the device name", device)) return;
  if (markShouldIdentifyDevice(device)) {
    // The mark is renewed, and the running reader carries on.
    NLog("%s: Someone is already reading %@, bailing", __func__, device);
    return;
  }
  // Deliberate: the open isn't checked; a device that can't be opened only runs out its time.
  UniqueFd fd(::open(hostPath("/dev/" + device).c_str(), O_RDONLY | O_CLOEXEC));
  std::vector<char> buffer(kReadSize);
  do {
    NLog("%s: We are reading 10MB from %@!", __func__, device);
    std::uint64_t deadline = clock().monotonicMicros() + kReadPeriodMicros;
    readForPeriod(fd.get(), buffer.data(), buffer.size(), deadline, &closing_);
  } while (!closing_ && shouldKeepIdentifyingDevice(device));
  fd.reset();
  markDoneIdentifyingDevice(device);
}

bool LunIdentification::markShouldIdentifyDevice(const std::string& device) {
  std::scoped_lock lock(marksLock_);
  bool had = marks_.count(device) != 0;
  marks_[device] = clock().wallMicros();
  return had;
}

bool LunIdentification::shouldKeepIdentifyingDevice(const std::string& device) {
  std::uint64_t mark;
  {
    std::scoped_lock lock(marksLock_);
    auto it = marks_.find(device);
    if (it == marks_.end()) return false;
    mark = it->second;
  }
  // The time since the mark, signed and negative as a date's interval since now, in float.
  double since = (static_cast<double>(mark) - static_cast<double>(clock().wallMicros())) / 1e6;
  float sinceMark = static_cast<float>(since);
  bool keep = sinceMark > -kMarkSeconds;
  NLog("%s: time since mark of %@ = %f, %d", __func__, device, static_cast<double>(sinceMark),
       static_cast<int>(keep));
  return keep;
}

void LunIdentification::markDoneIdentifyingDevice(const std::string& device) {
  {
    std::scoped_lock lock(marksLock_);
    marks_.erase(device);
  }
  NLog("%s: Done with %@", __func__, device);
}

// ---- SANFilesystem's side: lookup keys and the two entry points ----

std::string SANFilesystem::identifierLookupFromLUNRecord(const PropertyList& record) {
  // The label tool writes the keys in lower case, the administration tool capitalised; each is
  // tried on its own.
  auto either = [&record](std::string_view lower, std::string_view upper) -> const PropertyList* {
    const PropertyList* v = record.get(lower);
    return v ? v : record.get(upper);
  };
  const PropertyList* type = either("connectionType", "ConnectionType");
  const PropertyList* serial = either("serialNumber", "SerialNumber");
  if (!type || !serial) return {};
  return format("%@:%@", *type, *serial);
}

void SANFilesystem::findDisksByIdentifier(PropertyList& lookup) {
  bool wantsAll = lookup.size() == 0;
  PropertyList luns = visibleLUNs();
  const PlistDict* devices = luns.asDict();
  if (!devices) return;
  for (const auto& [device, record] : *devices) {
    std::string key = identifierLookupFromLUNRecord(record);
    // Two LUNs under one key: the later in the walk wins.
    if (!wantsAll && !lookup.get(key)) continue;
    NLog("%s: setting key %@ for bsd device %@", __func__, key, device);
    lookup.set(key, device);
  }
}

bool SANFilesystem::identifyLUNs(const PropertyList& lookup) {
  if (const PlistDict* keys = lookup.asDict()) {
    for (const auto& [key, device] : *keys) {
      const std::string* name = device.asString();
      if (name && !name->empty()) identification_->startReader(*name);
    }
  }
  return true;
}

bool SANFilesystem::stopIdentifyingLUNs(const PropertyList& lookup) {
  if (const PlistDict* keys = lookup.asDict()) {
    for (const auto& [key, device] : *keys) {
      const std::string* name = device.asString();
      if (name && !name->empty()) identification_->markDoneIdentifyingDevice(*name);
    }
  }
  return true;
}

}  // namespace velm
