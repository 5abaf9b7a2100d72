#include "remote/ModuleLibrary.h"

#include <dlfcn.h>
#include <link.h>

#include <gtest/gtest.h>

#include <array>
#include <cstring>
#include <memory>

namespace vel {
namespace {

TEST(ModuleLibraryTest, DescriptorHasItsFortyEightBytes) {
  const auto library = ModuleLibrary::Load(MODULE_FILE);
  EXPECT_STREQ(library->Descriptor().name, "virtusb-redir");
  EXPECT_EQ(library->Descriptor().open(nullptr), nullptr) << "without a device";

  const std::unique_ptr<void, int (*)(void*)> handle(dlopen(MODULE_FILE, RTLD_NOW | RTLD_LOCAL), &dlclose);
  ASSERT_NE(handle, nullptr) << dlerror();
  auto* const bytes = static_cast<std::uint8_t*>(dlsym(handle.get(), "VEL_DRV_MODULE"));
  ASSERT_NE(bytes, nullptr);
  Dl_info info{};
  const ElfW(Sym)* symbol = nullptr;
  ASSERT_NE(dladdr1(bytes, &info, reinterpret_cast<void**>(const_cast<ElfW(Sym)**>(&symbol)), RTLD_DL_SYMENT), 0);
  EXPECT_EQ(symbol->st_size, 48U);
  std::array<std::uint64_t, 6> words{};
  std::memcpy(words.data(), bytes, sizeof words);
  EXPECT_EQ(words[0], reinterpret_cast<std::uintptr_t>(dlsym(handle.get(), "virtusb_open")));
  EXPECT_EQ(words[1], 0U);
  EXPECT_EQ(words[2], 0x0000'FFFF'FFFF'0010U);
  EXPECT_STREQ(reinterpret_cast<const char*>(words[3]), "virtusb-redir");
  EXPECT_EQ(words[4], 1U);
  *const_cast<volatile std::uint8_t*>(bytes + 40) = 0;  // The framework's: writable.
  EXPECT_EQ(words[5], 0U);
}

}  // namespace
}  // namespace vel
