#include "cmd/serve/Reception.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <array>
#include <future>
#include <optional>

#include "host/StreamEnds.h"
#include "remote/TcpConnection.h"

namespace vel {
namespace {

using testing::HasSubstr;

class ReceptionTest : public testing::TestWithParam<bool> {  // Whether by TLS.
 protected:
  std::string Folder() const { return GetParam() ? TlsFolder() : ""; }
  UniqueFd Connect() const { return ConnectTcp(*ParseHostPort(mListener.Name()), mStop); }
  std::unique_ptr<ByteStream> Speak() const {
    std::unique_ptr<ByteStream> stream = ClientStream(GetParam(), Connect());
    EXPECT_EQ(stream->WriteAll(std::array<std::uint8_t, 1>{7}), ByteStream::Result::kOk);
    return stream;
  }

  const StopSignal mStop;
  const Listener mListener{"0", mStop};
};
INSTANTIATE_TEST_SUITE_P(PlainAndTls, ReceptionTest, testing::Bool());

TEST_P(ReceptionTest, OneThatIsSilentHoldsUpNobodyAndOneThatIsServedNeither) {
  Reception reception(mListener, Folder(), mStop, [](const std::string& note) { ADD_FAILURE() << note; }, {});
  const UniqueFd silent = Connect();
  const auto first = Speak();
  auto served = reception.Next();
  const auto second = Speak();
  auto next = reception.Next();
  for (const auto& visitor : {std::ref(served), std::ref(next)}) {
    std::array<std::uint8_t, 4> bytes{};
    std::size_t count = 0;
    ASSERT_TRUE(visitor.get().has_value());
    EXPECT_THAT(visitor.get()->name, HasSubstr(GetParam() ? " (CN = client)" : "127.0.0.1:"));
    EXPECT_EQ(visitor.get()->stream->Read(bytes, count), ByteStream::Result::kOk);
    EXPECT_EQ(count, 1U);
  }
  mStop.Raise();
  EXPECT_FALSE(reception.Next().has_value());
}

TEST_P(ReceptionTest, OneThatSaysNothingInItsTimeIsEndedWithALine) {
  std::promise<std::string> told;
  Reception reception(mListener, Folder(), mStop, [&](const std::string& note) { told.set_value(note); },
                      {.toSpeak = std::chrono::milliseconds(1)});
  FdStream silent(Connect());
  EXPECT_THAT(told.get_future().get(),
              HasSubstr(GetParam() ? "not finished the TLS handshake within 1 s" : "sent nothing within 1 s"));
  std::array<std::uint8_t, 4> bytes{};
  std::size_t count = 0;
  EXPECT_EQ(silent.Read(bytes, count), ByteStream::Result::kEnd);
}

}  // namespace
}  // namespace vel
