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
#define QEL_NOTICE(N, B)                                                      \
  out.push_back({#N, N::GetRttiTypeName(), N::GetTypeInfo(),                  \
                 N::GetBaseTypeInfo(), B::GetTypeInfo(),                      \
                 reinterpret_cast<const void*>(&N::_applyCP), N::GetTypeIndex()});
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
