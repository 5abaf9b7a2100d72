#include "observe/CaptureFile.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <span>
#include <utility>

namespace vel {
namespace {

constexpr std::size_t kBlockBytes = std::size_t{1} << 20U;
constexpr std::size_t kMaxBlocks = 32;
// For records to gather in, so that a slow stream of them is not a write each.
constexpr std::chrono::milliseconds kGatherTime{50};
// For the reader of a FIFO to take something of what is left at the end.
constexpr std::chrono::seconds kEndTime{1};

}  // namespace

CaptureFile::CaptureFile(const std::string& path, std::uint32_t dataLimit, std::function<void(const std::string&)> note)
    : mPath(path), mDataLimit(dataLimit), mNote(std::move(note)), mFile(path) {
  {
    const MutexLock lock(mMutex);
    std::vector<std::uint8_t> header;
    AppendFileHeader(header);
    std::ranges::copy(header, Reserve(header.size(), true).begin());
  }
  mThread = std::thread([this] { Run(); });
}

CaptureFile::~CaptureFile() {
  {
    const MutexLock lock(mMutex);
    mEnding = true;
    mWork.NotifyOne();
  }
  mHurry.Raise();
  mThread.join();
  std::uint64_t received = 0;
  std::uint64_t dropped = mLost;
  const MutexLock lock(mMutex);
  for (const Counts& counts : mCounts) {
    received += counts.received;
    dropped += counts.dropped;
  }
  mNote("capture: " + std::to_string(received - dropped) + " records in " + mPath +
        (dropped == 0 ? "" : ", " + std::to_string(dropped) + " left out"));
}

std::uint32_t CaptureFile::AddInterface(std::string_view name) {
  std::vector<std::uint8_t> description;
  AppendInterface(description, name);
  const MutexLock lock(mMutex);
  std::ranges::copy(description, Reserve(description.size(), true).begin());
  mCounts.emplace_back();
  return static_cast<std::uint32_t>(mCounts.size() - 1);
}

void CaptureFile::Write(std::uint32_t interface, const UsbEvent& event) {
  const MutexLock lock(mMutex);
  ++mCounts[interface].received;
  const std::span<std::uint8_t> room =
      mFailed ? std::span<std::uint8_t>() : Reserve(EventBlockSize(event, mDataLimit), false);
  if (room.empty()) {
    ++mCounts[interface].dropped;
    return;
  }
  WriteEventBlock(room, event, interface, Now(), mDataLimit);
}

CaptureTime CaptureFile::Now() const {
  const auto since = std::chrono::steady_clock::now() - mStart;  // A clock that is set does not set records back.
  return std::chrono::duration_cast<CaptureTime>(mWallStart.time_since_epoch() + since);
}

std::span<std::uint8_t> CaptureFile::Reserve(std::size_t count, bool needed) {
  if (mFilled.empty() || kBlockBytes - mFilled.back().used < count) {
    if (mSpare.empty() && (mBlocks < kMaxBlocks || needed)) {
      mSpare.push_back({std::make_unique_for_overwrite<std::uint8_t[]>(kBlockBytes), 0});
      ++mBlocks;
    }
    if (mSpare.empty()) {
      return {};
    }
    mFilled.push_back(std::move(mSpare.back()));
    mSpare.pop_back();
    mFilled.back().used = 0;
    if (mFilled.size() <= 2) {  // There is something, and then there is enough.
      mWork.NotifyOne();
    }
  }
  Block& block = mFilled.back();
  return {block.bytes.get() + std::exchange(block.used, block.used + count), count};
}

bool CaptureFile::Await(std::vector<Block>& batch) {
  MutexLock lock(mMutex);
  for (Block& block : batch) {
    mSpare.push_back(std::move(block));
  }
  batch.clear();
  while (mFilled.empty() && !mEnding) {
    mWork.Wait(lock);
  }
  const auto gathered = std::chrono::steady_clock::now() + kGatherTime;
  while (mFilled.size() < 2 && !mEnding && mWork.WaitUntil(lock, gathered)) {
  }
  batch.swap(mFilled);
  return !batch.empty();
}

void CaptureFile::Run() {
  std::vector<Block> batch;
  while (Await(batch)) {
    for (const Block& block : batch) {
      WriteBlocks({block.bytes.get(), block.used});
    }
    if (!mToldDropped && HasDropped()) {
      mToldDropped = true;
      mNote("capture: " + mPath + " is too slow: records are left out, and counted");
    }
  }
  WriteBlocks(Statistics());
}

bool CaptureFile::HasDropped() {
  const MutexLock lock(mMutex);
  return !mFailed && std::ranges::any_of(mCounts, [](const Counts& counts) { return counts.dropped > 0; });
}

std::vector<std::uint8_t> CaptureFile::Statistics() {
  std::vector<std::uint8_t> blocks;
  const MutexLock lock(mMutex);
  for (std::uint32_t i = 0; i < mCounts.size(); ++i) {
    AppendInterfaceStatistics(blocks, i, Now(), mCounts[i].received, mCounts[i].dropped);
  }
  return blocks;
}

void CaptureFile::WriteBlocks(std::span<const std::uint8_t> blocks) {
  std::size_t written = 0;
  int error = mError;
  while (written < blocks.size() && error == 0) {
    const std::ptrdiff_t count = mFile.Write(blocks.subspan(written));
    if (count >= 0) {
      written += static_cast<std::size_t>(count);
    } else if (errno == EAGAIN) {  // A FIFO that is full.
      const PollFd room{mFile.Room(), kWritable, 0};
      const PollFd none{kNoFd, 0, 0};
      error = mHurry.WaitFor(room.fd, kWritable) || WaitForFirst({room, none, none}, kEndTime) ? 0 : EAGAIN;
    } else if (errno != EINTR) {
      error = errno;
    }
  }
  if (error != 0) {
    const PcapngCut cut = CutPcapng(blocks, written);
    mLost += cut.recordsBehind;
    written = cut.bytes;
  }
  mWritten += static_cast<std::int64_t>(written);
  if (error != 0 && mError == 0) {
    mError = error;
    mFile.Truncate(mWritten);
    mNote("capture: cannot write " + mPath + ": " + std::strerror(error) + "; it ends here");
    const MutexLock lock(mMutex);
    mFailed = true;
  }
}

}  // namespace vel
