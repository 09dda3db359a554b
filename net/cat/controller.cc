#include "net/cat/controller.h"

#include <time.h>

#include <cerrno>

namespace cat {
namespace {

class RealClock : public Clock {
 public:
  uint64_t NowMicros() override {
    struct timespec ts;
    clock_gettime(CLOCK_MONOTONIC, &ts);
    return static_cast<uint64_t>(ts.tv_sec) * 1000000u +
           static_cast<uint64_t>(ts.tv_nsec) / 1000u;
  }
  void SleepMicros(uint64_t micros) override {
    struct timespec ts;
    ts.tv_sec = static_cast<time_t>(micros / 1000000u);
    ts.tv_nsec = static_cast<long>((micros % 1000000u) * 1000u);
    while (nanosleep(&ts, &ts) < 0 && errno == EINTR) {
    }
  }
};

}  // namespace

Clock* Clock::Real() {
  static RealClock clock;
  return &clock;
}

BandwidthController::BandwidthController(RateLimiter* limiter, Clock* clock)
    : limiter_(limiter), clock_(clock), last_block_us_(clock->NowMicros()) {}

void BandwidthController::Reset() { last_block_us_ = clock_->NowMicros(); }

size_t BandwidthController::Quota(RateLimiter::Direction direction, size_t n) {
  if (limiter_ == nullptr) return n;
  size_t allowance = limiter_->GetAllowance(direction);
  return (allowance != 0 && allowance < n) ? allowance : n;
}

size_t BandwidthController::ReadQuota(size_t n) {
  return Quota(RateLimiter::kRead, n);
}

size_t BandwidthController::WriteQuota(size_t n) {
  return Quota(RateLimiter::kWrite, n);
}

void BandwidthController::OnRead(size_t n) { Pace(RateLimiter::kRead, n); }

void BandwidthController::OnWrite(size_t n) { Pace(RateLimiter::kWrite, n); }

void BandwidthController::Pace(RateLimiter::Direction direction, size_t n) {
  if (limiter_ == nullptr) return;
  uint64_t rate = limiter_->GetRate(direction);  // bytes per second
  if (rate == 0) return;
  uint64_t expected_us = static_cast<uint64_t>(n) * 1000000u / rate;
  uint64_t elapsed_us = clock_->NowMicros() - last_block_us_;
  if (expected_us > elapsed_us) {
    uint64_t sleep_us = expected_us - elapsed_us;
    clock_->SleepMicros(sleep_us < kMaxSleepMicros ? sleep_us : kMaxSleepMicros);
  }
  limiter_->OnBlockDone(direction, n);
  last_block_us_ = clock_->NowMicros();
}

}  // namespace cat
