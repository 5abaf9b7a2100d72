// Descriptor bytes that are not as they should be.
#include <vector>

#include <gtest/gtest.h>

#include "io/DummyUsbIo/ConfigDescTree.h"

namespace vel {
namespace {

using Bytes = std::vector<std::uint8_t>;

const Bytes kConfig = {9, 2, 34, 0, 7, 1, 2, 0x80, 50};
const Bytes kInterface = {9, 4, 0, 0, 9, 0xFF, 0, 0, 0};
const Bytes kEndpoint = {7, 5, 0x81, 2, 64, 0, 1};

Bytes Join(std::initializer_list<Bytes> parts) {
  Bytes all;
  for (const Bytes& part : parts) {
    all.insert(all.end(), part.begin(), part.end());
  }
  return all;
}

template <class Desc>
Bytes ExtraOf(const Desc& desc) {
  return {desc.extra, desc.extra + desc.extra_length};
}

TEST(ConfigDescTree, CountsWhatIsThereAndNotWhatIsClaimed) {
  ConfigDescTree tree(Join({kConfig, kInterface, kEndpoint, kInterface}));
  const libusb_config_descriptor& config = *tree.Get();
  EXPECT_EQ(config.bNumInterfaces, 1);  // The bytes claim 7.
  ASSERT_EQ(config.interface[0].num_altsetting, 2);
  EXPECT_EQ(config.interface[0].altsetting[0].bNumEndpoints, 1);  // The bytes claim 9.
  EXPECT_EQ(config.interface[0].altsetting[1].bNumEndpoints, 0);
}

TEST(ConfigDescTree, StopsAtTheLastWholeDescriptor) {
  for (const Bytes& tail : {Bytes{0, 5, 1, 2, 3}, {1, 5, 1, 2, 3}, {255, 5, 1, 2}, {8, 5, 1, 2}, {7}}) {
    SCOPED_TRACE(::testing::PrintToString(tail));
    ConfigDescTree tree(Join({kConfig, kInterface, kEndpoint, tail}));
    ASSERT_EQ(tree.Get()->bNumInterfaces, 1);
    EXPECT_EQ(tree.Get()->interface[0].altsetting[0].bNumEndpoints, 1);
    EXPECT_EQ(tree.Get()->interface[0].altsetting[0].endpoint[0].extra_length, 0);
  }
  for (const Bytes& bytes : {Bytes{}, Bytes{9}, Bytes{0, 2}, Bytes{9, 2, 1}}) {
    ConfigDescTree tree(bytes);
    EXPECT_EQ(tree.Get()->bLength + tree.Get()->bNumInterfaces, 0);
  }
}

TEST(ConfigDescTree, CutOrMisplacedDescriptorsBecomeExtraBytesOfTheOneBefore) {
  const Bytes shortInterface = {5, 4, 1, 2, 3};
  const Bytes shortEndpoint = {3, 5, 0x82};
  const Bytes longClass = {4, 0x24, 1, 2};
  ConfigDescTree tree(Join({kConfig, kEndpoint, shortInterface, kInterface, longClass, shortEndpoint, kEndpoint,
                            longClass, shortInterface}));
  const libusb_config_descriptor& config = *tree.Get();
  EXPECT_EQ(ExtraOf(config), Join({kEndpoint, shortInterface}));
  ASSERT_EQ(config.bNumInterfaces, 1);
  const libusb_interface_descriptor& setting = config.interface[0].altsetting[0];
  EXPECT_EQ(ExtraOf(setting), Join({longClass, shortEndpoint}));
  ASSERT_EQ(setting.bNumEndpoints, 1);
  EXPECT_EQ(ExtraOf(setting.endpoint[0]), Join({longClass, shortInterface}));
}

}  // namespace
}  // namespace vel
