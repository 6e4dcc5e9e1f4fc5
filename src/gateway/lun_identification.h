// LUN identification: an administrator finds a physical disk among many by its activity. Each
// chosen device gets a thread that reads it as hard as the machine can for as long as its mark
// is renewed; a mark lives 10 seconds. All times come from the clock seam.
#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <list>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <thread>

namespace velm {

class LunIdentification {
 public:
  static constexpr std::size_t kReadSize = 10485760;
  static constexpr std::uint64_t kReadPeriodMicros = 1'000'000;
  static constexpr float kMarkSeconds = 10.0f;

  LunIdentification() = default;
  // Ends every reader, whatever its mark, and waits for it.
  ~LunIdentification();
  LunIdentification(const LunIdentification&) = delete;
  LunIdentification& operator=(const LunIdentification&) = delete;

  // Starts a thread running identifyBSDDevice(device).
  void startReader(const std::string& device);
  // The thread body: reads the device (under the root's /dev) until its mark is gone or too old.
  void identifyBSDDevice(const std::string& device);

  // Sets the device's mark to now; true when it had one already.
  bool markShouldIdentifyDevice(const std::string& device);
  // True while the mark is less than 10 seconds old.
  bool shouldKeepIdentifyingDevice(const std::string& device);
  void markDoneIdentifyingDevice(const std::string& device);

  // Readers whose thread has not ended yet.
  std::size_t runningReaders();

 private:
  struct Reader {
    std::thread thread;
    std::shared_ptr<std::atomic<bool>> done = std::make_shared<std::atomic<bool>>(false);
  };
  void joinEndedReaders();  // needs readersLock_

  std::mutex marksLock_;                        // the monitor of marks_; a leaf
  std::map<std::string, std::uint64_t> marks_;  // device -> wall time of its last mark, in µs
  std::mutex readersLock_;                      // guards readers_; never held with marksLock_
  std::list<Reader> readers_;
  std::atomic<bool> closing_{false};
};

// What one read period did.
struct ReadPeriod {
  std::uint64_t reads = 0;  // read calls made
  std::uint64_t bytes = 0;  // bytes they gave
};

// One read period of a reader: reads size bytes at a time from fd into buffer, with no pause,
// until the monotonic clock reaches deadlineMicros, going back to the start after a short read.
// A descriptor that can't be read (or sought back) waits out the period on the clock instead;
// stop, when set, ends the period at once.
ReadPeriod readForPeriod(int fd, char* buffer, std::size_t size, std::uint64_t deadlineMicros,
                         const std::atomic<bool>* stop = nullptr);

}  // namespace velm
