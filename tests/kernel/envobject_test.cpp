// The root of the objects living in an environment.
#include <type_traits>

#include "support/items.h"
#include "support/qeltest.h"

using namespace qeltest;

TEST(EnvObject, KnowsItsEnvironmentAndMemoryManager) {
  QelEnv env;
  ItemI* x = Item(env);
  EXPECT_EQ(x->getEnv(), env.getImpl());
  EXPECT_EQ(x->getMemoryManager(), env.getImpl()->getGeneralAllocator());
  EXPECT_EQ(QelMemoryManager(x->getMemoryManager()).getEnv(), env.getImpl());
  // The environment can be read from the raw block, as deletion does once
  // the destructor has run.
  EXPECT_EQ(QelRttiEnvObjectI::EnvOfBlock(x), env.getImpl());
  x->end();
  env.end();
}

TEST(EnvObject, ZeroOneHooksHaveTheirDefaults) {
  QelEnv env;
  ItemI* x = Item(env);
  EXPECT_FALSE(x->isZolRefCounted());
  EXPECT_EQ(x->makeZolClone(env.getImpl()), nullptr);
  QelInt live = env.getImpl()->getNumberOfExtractables();
  x->garbage();  // does nothing
  EXPECT_EQ(env.getImpl()->getNumberOfExtractables(), live);
  x->end();
  env.end();
}

TEST(EnvObject, DeletingGivesTheBlockBackToItsEnvironment) {
  QelEnv env;
  QelEnv other;
  QelInt base = BytesInUse(env);
  QelAlgorithmI* a = QelNewObject<QelAlgorithmI>(env.getImpl(), env.getImpl());
  EXPECT_GT(BytesInUse(env), base);
  QelInt otherBase = BytesInUse(other);
  delete a;
  EXPECT_EQ(BytesInUse(env), base);
  EXPECT_EQ(BytesInUse(other), otherBase);
  other.end();
  env.end();
}

TEST(EnvObject, TheRootEndsTheTypeWalk) {
  QelEnv env;
  ItemI* x = Item(env);
  const QelRttiEnvObjectI* root = x;
  EXPECT_TRUE(root->isType(QelRttiEnvObjectI::GetTypeInfo()));
  EXPECT_FALSE(root->isType(QelRtti::GetTypeInfo()));
  EXPECT_EQ(QelRttiEnvObjectI::GetBaseTypeInfo(), nullptr);
  EXPECT_STREQ(QelRttiEnvObjectI::GetRttiTypeName(), "QelRttiEnvObjectI");
  x->end();
  env.end();
}
