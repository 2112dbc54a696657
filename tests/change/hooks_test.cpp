// Engine hook slots: forwarding, failures of empty slots, slots per class.
#include <string>
#include <vector>

#include "support/items.h"
#include "support/qeltest.h"

using namespace qeltest;

namespace {

struct SlotCall {
  QelAlgorithmI* algorithm;
  const void* object;
  void* data;
};
std::vector<SlotCall> calls;

void* ExtractModel(QelAlgorithm a, const QelModelI* m) {
  calls.push_back({a.getImpl(), m, nullptr});
  return reinterpret_cast<void*>(0x1234);
}
void* ModifyModel(QelAlgorithm a, const QelModelI* m, void* data) {
  calls.push_back({a.getImpl(), m, data});
  return data;
}
QelInt ApplyAddOne(QelAlgorithm a, const QelAddOneToModel* n, void* data) {
  calls.push_back({a.getImpl(), n, data});
  return 42;
}

struct HooksTest : ::testing::Test {
  QelEnv env;
  void SetUp() override { calls.clear(); }
  void TearDown() override { env.end(); }
};

}  // namespace

TEST_F(HooksTest, EmptySlotsFailWithTheStatedExceptions) {
  QelModel m(env);
  QelAlgorithm alg(env);
  ASSERT_EQ(QelModelI::_extractCP, nullptr);
  EXPECT_THROW(m.getImpl()->extractToCP(alg), QelAlgorithm::ExtractFailure);
  // Modification and removal both report a removal failure.
  EXPECT_THROW(m.getImpl()->modifyCP(alg, nullptr), QelAlgorithm::RemoveFailure);
  EXPECT_THROW(m.getImpl()->unextractFromCP(alg, nullptr), QelAlgorithm::RemoveFailure);
  try {
    m.getImpl()->extractToCP(alg);
  } catch (const QelAlgorithm::ExtractFailure& e) {
    EXPECT_EQ(e.getMessage(), nullptr);
    EXPECT_EQ(e.getCode(), 0);
  }
  ItemI* x = Item(env);
  QelAddOneToModel notice(m.getImpl(), x);
  try {
    notice.applyToCP(alg, nullptr);
    FAIL() << "no exception";
  } catch (const QelAlgorithm::CannotChangeException& e) {
    EXPECT_EQ(e.getAlgorithm(), alg.getImpl());
  }
  QelSetNameChange named(x);
  EXPECT_THROW(named.applyToCP(alg, nullptr), QelAlgorithm::CannotChangeException);
  alg.end();
  m.end();
  x->end();
}

TEST_F(HooksTest, ActivationHooksOfOrdinaryObjectsDoNothing) {
  QelModel m(env);
  QelAlgorithm alg(env);
  EXPECT_EQ(m.getImpl()->whenAddedToCP(alg, nullptr), nullptr);
  EXPECT_EQ(m.getImpl()->whenRemovedFromCP(alg, nullptr), nullptr);
  alg.end();
  m.end();
}

TEST_F(HooksTest, AFilledHookGetsAlgorithmObjectDataAndItsResultComesBack) {
  SlotGuard<decltype(QelModelI::_extractCP)> g1(QelModelI::_extractCP);
  SlotGuard<decltype(QelModelI::_modifyCP)> g2(QelModelI::_modifyCP);
  QelModelI::_extractCP = &ExtractModel;
  QelModelI::_modifyCP = &ModifyModel;
  QelModel m(env);
  QelAlgorithm alg(env);
  int token = 0;
  EXPECT_EQ(m.getImpl()->extractToCP(alg), reinterpret_cast<void*>(0x1234));
  EXPECT_EQ(m.getImpl()->modifyCP(alg, &token), &token);
  ASSERT_EQ(calls.size(), 2u);
  EXPECT_EQ(calls[0].algorithm, alg.getImpl());
  EXPECT_EQ(calls[0].object, m.getImpl());
  EXPECT_EQ(calls[1].data, &token);
  // The removal slot is still empty.
  EXPECT_THROW(m.getImpl()->unextractFromCP(alg, nullptr), QelAlgorithm::RemoveFailure);
  alg.end();
  m.end();
}

TEST_F(HooksTest, ASlotServesItsOwnClassOnly) {
  SlotGuard<decltype(QelAddOneToModel::_applyCP)> g(QelAddOneToModel::_applyCP);
  QelAddOneToModel::_applyCP = &ApplyAddOne;
  QelModel m(env);
  ItemI* x = Item(env);
  QelAlgorithm alg(env);
  QelExtractableArray xs(env, 1, QelExtractable(x));
  QelAddOneToModel one(m.getImpl(), x);
  QelAddToModel many(m.getImpl(), xs, false);
  int token = 0;
  EXPECT_EQ(one.applyToCP(alg, &token), 42);
  ASSERT_EQ(calls.size(), 1u);
  EXPECT_EQ(calls[0].algorithm, alg.getImpl());
  EXPECT_EQ(calls[0].object, &one);
  EXPECT_EQ(calls[0].data, &token);
  EXPECT_THROW(many.applyToCP(alg, nullptr), QelAlgorithm::CannotChangeException);
  xs.end();
  alg.end();
  m.end();
  x->end();
}

TEST_F(HooksTest, AnAlgorithmInHookModeFollowsNoticesThroughTheSlots) {
  SlotGuard<decltype(QelAddOneToModel::_applyCP)> g(QelAddOneToModel::_applyCP);
  SlotGuard<decltype(QelModelI::_extractCP)> g2(QelModelI::_extractCP);
  QelAddOneToModel::_applyCP = &ApplyAddOne;
  QelModelI::_extractCP = &ExtractModel;
  QelModel m(env);
  ItemI* x = Item(env);
  QelAlgorithm alg(env);
  int data = 0;
  alg.getImpl()->useHooks(&data);
  alg.getImpl()->extract(m.getImpl());  // calls the model's extraction hook
  ASSERT_EQ(calls.size(), 1u);
  EXPECT_EQ(calls[0].object, m.getImpl());
  m.add(QelExtractable(x));  // the notice reaches the notice's hook
  ASSERT_EQ(calls.size(), 2u);
  EXPECT_EQ(calls[1].algorithm, alg.getImpl());
  EXPECT_EQ(calls[1].data, &data);
  alg.end();
  m.end();
  x->end();
}
