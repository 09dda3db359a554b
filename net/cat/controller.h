// The controller through which a buffered stream asks for permission to move
// bytes and reports what it moved, and the bandwidth controller that paces a
// stream to a rate.
//
// A stream calls IsCancelled before every step, ReadQuota/WriteQuota before
// every system call (the controller may grant fewer bytes than asked) and
// OnRead/OnWrite after every block moved.  Channel derives its own
// controller from BandwidthController to add the cancel flag and progress
// reports.  A controller is used by the one thread that uses its stream.
#ifndef VESTA_NET_CAT_CONTROLLER_H_
#define VESTA_NET_CAT_CONTROLLER_H_

#include <stddef.h>
#include <stdint.h>

namespace cat {

// Time source of the idle time-outs and the bandwidth pacing; tests replace
// it to make time-outs and sleeps deterministic.
class Clock {
 public:
  virtual ~Clock() = default;
  virtual uint64_t NowMicros() = 0;  // monotonic
  virtual void SleepMicros(uint64_t micros) = 0;
  // The process-wide real clock (CLOCK_MONOTONIC, nanosleep).
  static Clock* Real();
};

class BufferedIOController {
 public:
  BufferedIOController() = default;
  virtual ~BufferedIOController() = default;
  BufferedIOController(const BufferedIOController&) = delete;
  BufferedIOController& operator=(const BufferedIOController&) = delete;

  virtual bool IsCancelled() { return false; }
  // Bytes the stream may move now out of the `n` it wants; 0 < result <= n.
  virtual size_t ReadQuota(size_t n) { return n; }
  virtual size_t WriteQuota(size_t n) { return n; }
  virtual void OnWrite(size_t /*n*/) {}
  virtual void OnRead(size_t /*n*/) {}
};

// What sets the pace of a BandwidthController, per direction.
class RateLimiter {
 public:
  enum Direction { kRead = 0, kWrite = 1 };
  virtual ~RateLimiter() = default;
  // Bytes per second; 0 = unlimited.
  virtual uint64_t GetRate(Direction direction) = 0;
  // Largest block the stream may move in one step; 0 = no limit.
  virtual size_t GetAllowance(Direction /*direction*/) { return 0; }
  // Called after each paced block.
  virtual void OnBlockDone(Direction direction, size_t n) = 0;
};

// Paces a stream: after each block of n bytes, when the limiter's rate r for
// that direction is not 0, sleeps until the block has taken n / r seconds
// since the previous block -- never more than one second at a time.
class BandwidthController : public BufferedIOController {
 public:
  // `limiter` (may be null: no limit) and `clock` must outlive the controller.
  explicit BandwidthController(RateLimiter* limiter = nullptr,
                               Clock* clock = Clock::Real());

  bool IsCancelled() override { return false; }
  size_t ReadQuota(size_t n) override;
  size_t WriteQuota(size_t n) override;
  void OnWrite(size_t n) override;
  void OnRead(size_t n) override;

  // Restarts the stopwatch.
  void Reset();

  // The longest single sleep, in microseconds.
  static constexpr uint64_t kMaxSleepMicros = 1000000;

 private:
  size_t Quota(RateLimiter::Direction direction, size_t n);
  void Pace(RateLimiter::Direction direction, size_t n);

  RateLimiter* limiter_;  // not owned; null = no limit
  Clock* clock_;          // not owned
  uint64_t last_block_us_;  // stopwatch start: end of the previous block
};

}  // namespace cat

#endif  // VESTA_NET_CAT_CONTROLLER_H_
