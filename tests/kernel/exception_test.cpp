// The exception classes: message, code, printing, and the kernel's kinds.
#include "support/qeltest.h"

#include <cstring>
#include <sstream>
#include <string>

namespace {

std::string Printed(const QelException& e) {
  std::ostringstream os;
  e.print(os);
  return os.str();
}

std::string Streamed(const QelException& e) {
  std::ostringstream os;
  os << e;
  return os.str();
}

TEST(Exception, CarriesMessageAndCode) {
  QelException e("something went wrong", 17);
  EXPECT_STREQ(e.getMessage(), "something went wrong");
  EXPECT_EQ(e.getCode(), 17);
  EXPECT_STREQ(e.what(), "something went wrong");
  EXPECT_EQ(Printed(e), "something went wrong");
  EXPECT_EQ(Streamed(e), "something went wrong");
  QelException zero("zero");
  EXPECT_EQ(zero.getCode(), 0);
}

TEST(Exception, MessageIsCopied) {
  char text[] = "original";
  QelException e(text, 0);
  std::strcpy(text, "changed!");
  EXPECT_STREQ(e.getMessage(), "original");
  QelException copy = e;
  EXPECT_STREQ(copy.getMessage(), "original");
  EXPECT_EQ(copy.getCode(), 0);
}

TEST(Exception, NullMessage) {
  QelException e(nullptr, 3);
  EXPECT_EQ(e.getMessage(), nullptr);
  EXPECT_STREQ(e.what(), "");
  EXPECT_EQ(Printed(e), "");
  EXPECT_EQ(Streamed(e), "");
  EXPECT_EQ(e.getCode(), 3);
  // An empty message is a message.
  QelException empty("", 0);
  ASSERT_NE(empty.getMessage(), nullptr);
  EXPECT_STREQ(empty.getMessage(), "");
}

TEST(Exception, EndReleasesNothingVisible) {
  QelException e("kept", 0);
  e.end();
  EXPECT_STREQ(e.getMessage(), "kept");
}

TEST(Exception, KernelKindsAndTheirTexts) {
  QelWrongUsage wrong("bad call");
  EXPECT_STREQ(wrong.getMessage(), "bad call");
  EXPECT_EQ(wrong.getCode(), 0);
  EXPECT_STREQ(QelEmptyHandleException().getMessage(), "Using empty Handle");
  EXPECT_STREQ(QelEmptyHandleException("QelModel: empty handle").getMessage(),
               "QelModel: empty handle");
  EXPECT_STREQ(QelNotImplemented("not here").getMessage(), "not here");
  EXPECT_STREQ(QelMemoryException().getMessage(), "Out of memory");
  EXPECT_STREQ(QelEnvAllocatorThreadMismatch().getMessage(),
               "Environment used from a thread that is not its allocator thread");
  EXPECT_STREQ(QelEnvAllocationDisabled().getMessage(), "Environment allocation is disabled");
  EXPECT_EQ(QelMemoryException().getCode(), 0);
  EXPECT_EQ(QelEnvAllocationDisabled().getCode(), 0);
}

TEST(Exception, KindsAreCaughtAsTheBaseAndAsStdException) {
  auto caughtAsBase = [](auto thrower) {
    try {
      thrower();
    } catch (const QelException& e) {
      return std::string(e.getMessage() != nullptr ? e.getMessage() : "<null>");
    }
    return std::string("<none>");
  };
  EXPECT_EQ(caughtAsBase([] { throw QelWrongUsage("w"); }), "w");
  EXPECT_EQ(caughtAsBase([] { throw QelEmptyHandleException(); }), "Using empty Handle");
  EXPECT_EQ(caughtAsBase([] { throw QelNotImplemented("n"); }), "n");
  EXPECT_EQ(caughtAsBase([] { throw QelMemoryException(); }), "Out of memory");
  EXPECT_EQ(caughtAsBase([] { throw QelEnvAllocationDisabled(); }),
            "Environment allocation is disabled");

  try {
    throw QelWrongUsage("as std");
  } catch (const std::exception& e) {
    EXPECT_STREQ(e.what(), "as std");
  }
}

TEST(Exception, MessageOfHelperReadsTheMessage) {
  EXPECT_EQ(qeltest::MessageOf<QelWrongUsage>([] { throw QelWrongUsage("m"); }), "m");
  EXPECT_EQ(qeltest::MessageOf<QelWrongUsage>([] {}), "<no exception>");
}

TEST(Exception, PrintIsVirtual) {
  class Custom : public QelException {
   public:
    Custom() : QelException("message", 0) {}
    void print(std::ostream& os) const override { os << "custom text"; }
  };
  Custom c;
  const QelException& base = c;
  EXPECT_EQ(Printed(base), "custom text");
  EXPECT_EQ(Streamed(base), "custom text");
  EXPECT_STREQ(base.getMessage(), "message");
}

}  // namespace
