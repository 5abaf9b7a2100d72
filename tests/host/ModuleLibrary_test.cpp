#include "remote/ModuleLibrary.h"

#include <dlfcn.h>
#include <elf.h>
#include <link.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <array>
#include <cstring>
#include <fstream>
#include <functional>

#include "vel/VelDriver.h"

namespace vel {
namespace {

class LoadedModule : public testing::Test {
 protected:
  LoadedModule() : mHandle(dlopen(MODULE_FILE, RTLD_NOW | RTLD_LOCAL)), mBytes(nullptr) {
    if (mHandle != nullptr) {
      mBytes = static_cast<std::uint8_t*>(dlsym(mHandle, "VEL_DRV_MODULE"));
    }
  }
  ~LoadedModule() override {
    if (mHandle != nullptr) {
      dlclose(mHandle);
    }
  }
  void SetUp() override { ASSERT_NE(mBytes, nullptr) << dlerror(); }

  template <class T>
  T At(std::size_t offset) const {
    T value{};
    std::memcpy(&value, mBytes + offset, sizeof value);
    return value;
  }

  void* const mHandle;
  std::uint8_t* mBytes;
};

TEST_F(LoadedModule, DescriptorHasItsFortyEightBytes) {
  Dl_info info{};
  const ElfW(Sym)* symbol = nullptr;
  ASSERT_NE(dladdr1(mBytes, &info, reinterpret_cast<void**>(const_cast<ElfW(Sym)**>(&symbol)), RTLD_DL_SYMENT), 0);
  ASSERT_NE(symbol, nullptr);
  EXPECT_STREQ(info.dli_sname, "VEL_DRV_MODULE");
  EXPECT_EQ(symbol->st_size, 48U);
  EXPECT_EQ(ELF64_ST_TYPE(symbol->st_info), STT_OBJECT);

  EXPECT_EQ(At<void*>(0), dlsym(mHandle, "virtusb_open"));
  EXPECT_NE(At<void*>(0), nullptr);
  EXPECT_EQ(At<std::uint64_t>(8), 0U);
  EXPECT_THAT((At<std::array<std::uint8_t, 8>>(16)), testing::ElementsAre(0x10, 0, 0xFF, 0xFF, 0xFF, 0xFF, 0, 0));
  EXPECT_STREQ(At<const char*>(24), "virtusb-redir");
  EXPECT_THAT((At<std::array<std::uint8_t, 16>>(32)),
              testing::ElementsAre(1, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0));
}

TEST_F(LoadedModule, DescriptorIsWritable) {
  auto* const reserved = reinterpret_cast<volatile std::uint8_t*>(mBytes + 40);
  *reserved = 0x5A;
  EXPECT_EQ(At<std::uint64_t>(40), 0x5AU);
  *reserved = 0;
}

TEST_F(LoadedModule, OpenWithoutADeviceGivesNull) {
  EXPECT_EQ(At<VelDriver* (*)(VelDeviceBase*)>(0)(nullptr), nullptr);
}

TEST(ModuleLibraryTest, LoadsTheModule) {
  const auto library = ModuleLibrary::Load(MODULE_FILE);
  EXPECT_STREQ(library->Descriptor().name, "virtusb-redir");
  EXPECT_EQ(library->Descriptor().driverType, 0x10);
  EXPECT_EQ(library->Descriptor().open(nullptr), nullptr);
}

TEST(ModuleLibraryTest, RefusesWhatIsNoModuleAndSaysWhatToDo) {
  const std::string text = testing::TempDir() + "no_module.txt";
  std::ofstream(text) << "no library\n";
  struct {
    std::string path;
    const char* reason;
  } const cases[] = {{"/nowhere/virtusb-redir.so", "module not found: /nowhere/virtusb-redir.so"},
                     {"", "module not found"},
                     {text, "cannot load the module"},
                     {testing::TempDir(), "cannot load the module"},
                     {NO_MODULE_FILE, "exports no VEL_DRV_MODULE"}};
  for (const auto& test : cases) {
    SCOPED_TRACE(test.path);
    try {
      ModuleLibrary::Load(test.path);
      ADD_FAILURE() << "was loaded";
    } catch (const std::runtime_error& error) {
      EXPECT_THAT(error.what(), testing::AllOf(testing::HasSubstr(test.reason), testing::HasSubstr("--module PATH"),
                                               testing::Not(testing::HasSubstr("\n"))));
    }
  }
  std::remove(text.c_str());
}

}  // namespace
}  // namespace vel
