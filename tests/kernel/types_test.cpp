// The basic types of the library.
#include <cstdint>
#include <limits>
#include <type_traits>

#include "support/qeltest.h"

TEST(Types, IntegersAreSixtyFourBitSigned) {
  EXPECT_TRUE((std::is_same<QelInt, std::int64_t>::value));
  EXPECT_EQ(std::numeric_limits<QelInt>::max(), INT64_MAX);
  EXPECT_TRUE(std::numeric_limits<QelInt>::is_signed);
}

TEST(Types, TruthValuesAndTypeInfos) {
  EXPECT_TRUE((std::is_same<QelBool, bool>::value));
  // A type info is the address of a function taking and returning nothing.
  QelTypeInfo info = QelChange::GetTypeInfo();
  EXPECT_NE(info, nullptr);
  EXPECT_TRUE((std::is_same<QelTypeInfo, void (*)()>::value));
}
