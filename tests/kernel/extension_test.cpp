// The per-object extension record and the string helpers behind it.
#include "support/qeltest.h"

#include <cstring>

namespace {

using qeltest::BytesInUse;

// Frees a record the way its object does.
void Release(QelGenAlloc* alloc, QelExtension*& ext) {
  ext->end(alloc);
  alloc->free(ext, sizeof(QelExtension));
  ext = nullptr;
}

TEST(ExtensionRecord, GetOrMakeMakesOnceOnDemand) {
  QelEnv env;
  QelGenAlloc* alloc = env.getImpl()->getGeneralAllocator();
  QelExtension* slot = nullptr;
  QelExtension* ext = QelExtension::getOrMake(alloc, &slot);
  ASSERT_NE(ext, nullptr);
  EXPECT_EQ(slot, ext);
  EXPECT_EQ(BytesInUse(env), static_cast<QelInt>(QelMemory::BlockSizeOfClass(
                                 env.getImpl()->getMemory()->getIndex(sizeof(QelExtension)))));
  EXPECT_EQ(QelExtension::getOrMake(alloc, &slot), ext);
  // A new record is empty.
  EXPECT_EQ(ext->getName(), nullptr);
  EXPECT_EQ(ext->getFile(), nullptr);
  EXPECT_EQ(ext->getLine(), 0);
  EXPECT_EQ(ext->getObject(), nullptr);
  EXPECT_EQ(ext->getProperties(), nullptr);
  Release(alloc, slot);
  EXPECT_EQ(BytesInUse(env), 0);
  env.end();
}

TEST(ExtensionRecord, NameIsCopiedAndReplaced) {
  QelEnv env;
  QelGenAlloc* alloc = env.getImpl()->getGeneralAllocator();
  QelExtension* ext = nullptr;
  QelExtension::getOrMake(alloc, &ext);
  char name[] = "first";
  ext->setName(alloc, name);
  EXPECT_STREQ(ext->getName(), "first");
  EXPECT_NE(ext->getName(), name);
  std::strcpy(name, "xxxxx");
  EXPECT_STREQ(ext->getName(), "first");

  QelInt withShortName = BytesInUse(env);
  ext->setName(alloc, "a considerably longer name, to change size class");
  EXPECT_STREQ(ext->getName(), "a considerably longer name, to change size class");
  // Setting the record's own name again is safe.
  ext->setName(alloc, ext->getName());
  EXPECT_STREQ(ext->getName(), "a considerably longer name, to change size class");
  ext->setName(alloc, "first");
  EXPECT_EQ(BytesInUse(env), withShortName);
  // Null clears it.
  ext->setName(alloc, nullptr);
  EXPECT_EQ(ext->getName(), nullptr);
  Release(alloc, ext);
  EXPECT_EQ(BytesInUse(env), 0);
  env.end();
}

TEST(ExtensionRecord, LocationAndUserObject) {
  QelEnv env;
  QelGenAlloc* alloc = env.getImpl()->getGeneralAllocator();
  QelExtension* ext = nullptr;
  QelExtension::getOrMake(alloc, &ext);
  ext->setLocation(alloc, "model.cpp", 42);
  EXPECT_STREQ(ext->getFile(), "model.cpp");
  EXPECT_EQ(ext->getLine(), 42);
  ext->setLocation(alloc, "other.cpp", 7);
  EXPECT_STREQ(ext->getFile(), "other.cpp");
  EXPECT_EQ(ext->getLine(), 7);
  ext->setLocation(alloc, nullptr, 0);
  EXPECT_EQ(ext->getFile(), nullptr);
  EXPECT_EQ(ext->getLine(), 0);

  int user = 5;
  ext->setObject(alloc, &user);
  EXPECT_EQ(ext->getObject(), &user);
  ext->setObject(alloc, nullptr);
  EXPECT_EQ(ext->getObject(), nullptr);
  ext->setLocation(alloc, "kept.cpp", 1);
  ext->setName(alloc, "kept");
  // end releases what the record owns (the user object is not its own).
  ext->setObject(alloc, &user);
  Release(alloc, ext);
  EXPECT_EQ(user, 5);
  EXPECT_EQ(BytesInUse(env), 0);
  env.end();
}

TEST(ExtensionRecord, PropertySetIsOwnedAndReplaced) {
  QelEnv env;
  QelGenAlloc* alloc = env.getImpl()->getGeneralAllocator();
  QelExtension* ext = nullptr;
  QelExtension::getOrMake(alloc, &ext);
  QelInt base = BytesInUse(env);

  QelNamedPropertySetI* first = QelNamedPropertySetI::Make(env.getMemoryManager());
  first->addProperty(QelNamedIntPropertyI::Make(alloc, "a", 1));
  ext->setProperties(first);
  EXPECT_EQ(ext->getProperties(), first);
  // The same set again changes nothing.
  ext->setProperties(first);
  EXPECT_EQ(ext->getProperties(), first);
  EXPECT_EQ(first->getSize(), 1);

  QelNamedPropertySetI* second = QelNamedPropertySetI::Make(env.getMemoryManager());
  QelInt withBoth = BytesInUse(env);
  ext->setProperties(second);  // the first set is ended
  EXPECT_EQ(ext->getProperties(), second);
  EXPECT_LT(BytesInUse(env), withBoth);
  ext->setProperties(nullptr);  // and so is the second
  EXPECT_EQ(ext->getProperties(), nullptr);
  EXPECT_EQ(BytesInUse(env), base);

  // A set still attached goes with the record.
  QelNamedPropertySetI* third = QelNamedPropertySetI::Make(env.getMemoryManager());
  third->addProperty(QelNamedStringPropertyI::Make(alloc, "s", "text"));
  ext->setProperties(third);
  Release(alloc, ext);
  EXPECT_EQ(BytesInUse(env), 0);
  env.end();
}

TEST(ExtensionStrings, CopyAndFree) {
  QelEnv env;
  QelGenAlloc* alloc = env.getImpl()->getGeneralAllocator();
  EXPECT_EQ(QelCopyString(alloc, nullptr), nullptr);
  QelFreeString(alloc, nullptr);
  EXPECT_EQ(BytesInUse(env), 0);

  char* copy = QelCopyString(alloc, "hello");
  ASSERT_NE(copy, nullptr);
  EXPECT_STREQ(copy, "hello");
  EXPECT_EQ(BytesInUse(env), 8);  // six bytes in the smallest class
  char* empty = QelCopyString(alloc, "");
  ASSERT_NE(empty, nullptr);
  EXPECT_STREQ(empty, "");
  QelFreeString(alloc, copy);
  QelFreeString(alloc, empty);
  EXPECT_EQ(BytesInUse(env), 0);
  env.end();
}

TEST(ExtensionThroughObject, MadeOnDemandAndReleasedWithTheObject) {
  QelEnv env;
  QelModel m(env);
  EXPECT_EQ(m.getImpl()->getExtension(), nullptr);
  QelInt bare = BytesInUse(env);
  int user = 0;
  m.getImpl()->setObject(&user);
  QelExtension* ext = m.getImpl()->getExtension();
  ASSERT_NE(ext, nullptr);
  m.getImpl()->setName("named");
  m.getImpl()->setLocation("file.cpp", 3);
  // One record for everything.
  EXPECT_EQ(m.getImpl()->getExtension(), ext);
  EXPECT_EQ(ext->getObject(), &user);
  EXPECT_STREQ(ext->getName(), "named");
  EXPECT_STREQ(m.getImpl()->getFile(), "file.cpp");
  EXPECT_EQ(m.getImpl()->getLine(), 3);
  EXPECT_EQ(m.getImpl()->getObject(), &user);
  EXPECT_GT(BytesInUse(env), bare);
  m.end();
  EXPECT_EQ(BytesInUse(env), 0);
  env.end();
}

}  // namespace
