#include "remote/ReplyIdBook.h"

#include <gtest/gtest.h>

namespace vel {
namespace {

constexpr std::uint16_t kBulk = 0x1025;
constexpr std::uint16_t kIso = 0x1029;

TEST(ReplyIdBookTest, IdsComeBackOldestFirstPerCommandAndStream) {
  ReplyIdBook book;
  book.Note(kBulk, 7, 10);
  book.Note(kIso, 7, 20);
  book.Note(kBulk, 7, 11);
  EXPECT_EQ(book.Take(kBulk, 6), 0);
  EXPECT_EQ(book.Take(kBulk, 7), 10);
  EXPECT_EQ(book.Take(kBulk, 7), 11);
  EXPECT_EQ(book.Take(kBulk, 7), 0);
  EXPECT_EQ(book.Take(kIso, 7), 20);
}

void NoteOthers(ReplyIdBook& book, std::size_t count) {
  for (std::size_t i = 0; i < count; ++i) {
    book.Note(kIso, static_cast<std::uint32_t>(i), 99);
  }
}

TEST(ReplyIdBookTest, UnansweredRequestIsKnownForAGenerationAndForgottenAfterTwo) {
  ReplyIdBook book;
  book.Note(kBulk, 1, 10);
  book.Note(kBulk, 2, 20);
  NoteOthers(book, ReplyIdBook::kGeneration);
  book.Note(kBulk, 1, 11);
  EXPECT_EQ(book.Take(kBulk, 1), 10);
  EXPECT_EQ(book.Take(kBulk, 1), 11);
  NoteOthers(book, ReplyIdBook::kGeneration);
  EXPECT_EQ(book.Take(kBulk, 2), 0);
}

}  // namespace
}  // namespace vel
