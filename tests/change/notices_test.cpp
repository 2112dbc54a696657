// Conformance of every notice class of the library, driven by the one list
// of notice classes.
#include <set>
#include <string>
#include <vector>

#include "support/qeltest.h"

namespace {

struct NoticeClass {
  std::string name;
  std::string rttiName;
  QelTypeInfo info;
  QelTypeInfo baseOfInfo;
  QelTypeInfo expectedBase;
  const void* slot;
  QelInt index;
};

std::vector<NoticeClass> AllNotices() {
  std::vector<NoticeClass> out;
#define QEL_NOTICE(N, B)                                                           \
  out.push_back({#N, N::GetRttiTypeName(), N::GetTypeInfo(), N::GetBaseTypeInfo(), \
                 B::GetTypeInfo(), reinterpret_cast<const void*>(&N::_applyCP),    \
                 N::GetTypeIndex()});
#include <qel/change/notices.def>
#undef QEL_NOTICE
  return out;
}

}  // namespace

TEST(NoticesTest, EveryNoticeNamesItselfAndItsBase) {
  for (const NoticeClass& n : AllNotices()) {
    EXPECT_EQ(n.rttiName, n.name);
    EXPECT_EQ(n.baseOfInfo, n.expectedBase) << n.name;
    EXPECT_NE(n.info, n.expectedBase) << n.name;
  }
}

TEST(NoticesTest, TypeInfosSlotsAndIndicesAreEachClassesOwn) {
  std::vector<NoticeClass> all = AllNotices();
  std::set<QelTypeInfo> infos;
  std::set<const void*> slots;
  std::set<QelInt> indices;
  for (const NoticeClass& n : all) {
    infos.insert(n.info);
    slots.insert(n.slot);
    EXPECT_GT(n.index, 0) << n.name;
    indices.insert(n.index);
  }
  EXPECT_EQ(infos.size(), all.size());
  EXPECT_EQ(slots.size(), all.size());
  EXPECT_EQ(indices.size(), all.size());
  EXPECT_EQ(infos.count(QelChange::GetTypeInfo()), 0u);
}

TEST(NoticesTest, EverySlotStartsEmpty) {
#define QEL_NOTICE(N, B) EXPECT_EQ(N::_applyCP, nullptr) << #N;
#include <qel/change/notices.def>
#undef QEL_NOTICE
}

namespace {
template <class N>
QelInt CountingHook(QelAlgorithm, const N*, void*) {
  return 7;
}
}  // namespace

TEST(NoticesTest, TheWalkReachesEveryClassOnceAndCanFillEverySlot) {
  int visited = 0;
  std::set<std::string> names;
  QelForEachNoticeClass([&](auto tag) {
    using N = typename decltype(tag)::Type;
    ++visited;
    names.insert(N::GetRttiTypeName());
    EXPECT_EQ(N::GetBaseTypeInfo(), decltype(tag)::Base::GetTypeInfo());
  });
  EXPECT_EQ(visited, QelNoticeClassCount);
  EXPECT_EQ(names.size(), static_cast<size_t>(QelNoticeClassCount));
  // Filling every slot at once, as an engine would, then emptying them.
  QelForEachNoticeClass([](auto tag) {
    using N = typename decltype(tag)::Type;
    N::_applyCP = &CountingHook<N>;
  });
  QelEnv env;
  QelModel m(env);
  QelAlgorithm alg(env);
  QelSetNameChange named(m.getImpl());
  QelAddOneToModel added(m.getImpl(), m.getImpl());
  EXPECT_EQ(named.applyToCP(alg, nullptr), 7);
  EXPECT_EQ(added.applyToCP(alg, nullptr), 7);
  QelForEachNoticeClass([](auto tag) {
    using N = typename decltype(tag)::Type;
    N::_applyCP = nullptr;
  });
  EXPECT_THROW(named.applyToCP(alg, nullptr), QelAlgorithm::CannotChangeException);
  alg.end();
  m.end();
  env.end();
}
