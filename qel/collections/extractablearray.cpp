// Extractable arrays: counted construction, search, marking sweeps, bulk
// end and naming, cloning and printing.
#include <algorithm>
#include <cstdio>
#include <cstring>
#include <ostream>
#include <vector>

#include <qel/change/change.h>
#include <qel/collections/extractablearray.h>
#include <qel/model/model.h>

QelExtractableArray::QelExtractableArray(QelMemoryManager m, long n)
    : QelArray<QelExtractable>(QelArrayI::Make(m.getAllocator(), n)) {}

QelExtractableArray::QelExtractableArray(QelEnv env, long n)
    : QelArray<QelExtractable>(QelArrayI::Make(env.getImpl()->getGeneralAllocator(), n)) {}

void QelExtractableArray::CheckCount(const char* prefix, long n, long k) {
  if (n == k) return;
  char message[128];
  std::snprintf(message, sizeof message, "%s%ld", prefix, k);
  throw QelWrongUsage(message);
}

void QelExtractableArray::add(long n, QelExtractable x) const {
  if (n == 0) return;
  long size = _impl->getSize();
  long newSize = size + n;
  if (n < 0) {
    // A negative count only lowers the size.
    _impl->setSize(newSize < 0 ? 0 : newSize);
    return;
  }
  _impl->grow(newSize);
  _impl->setSize(newSize);
  for (long i = size; i < newSize; ++i) QelArraySet(_impl, i, x.getImpl());
}

long QelExtractableArray::find(QelExtractable x) const {
  if (_impl == nullptr) return -1;
  for (long i = _impl->getSize() - 1; i >= 0; --i)
    if (getElement(i) == x.getImpl()) return i;
  return -1;
}

void QelExtractableArray::removeMarked() const {
  // One pass: kept elements slide down over the removed ones.
  long n = _impl->getSize();
  long kept = 0;
  for (long i = 0; i < n; ++i) {
    QelExtractableI* e = getElement(i);
    if (e != nullptr && QelEnvI::IsMarked(e)) continue;
    if (kept != i) _impl->rawAt(kept) = _impl->rawAt(i);
    ++kept;
  }
  _impl->setSize(kept);
}

void QelExtractableArray::endElements() const {
  if (_impl == nullptr) return;
  // First pass: drop null elements; empty the models without ending their
  // members (the members in the array are ended below, once).
  for (long i = _impl->getSize() - 1; i >= 0; --i) {
    QelExtractableI* e = getElement(i);
    if (e == nullptr) {
      _impl->remove(i, 1);
      continue;
    }
    if (e->isModel()) static_cast<QelModelI*>(e)->getMembers().clear();
  }
  // Everything is ended together, use-counted expressions included: ending
  // one of them alone could end other elements (their dependants) and leave
  // dangling pointers in the array; the joint removal ends each object once.
  if (_impl->getSize() > 0) _impl->getEnv()->removeFromAllAndDestroy(*this, 0, 1);
  _impl->clear();
}

void QelExtractableArray::setNames(const char* name) const {
  QelEnvI* env = _impl->getEnv();
  long n = _impl->getSize();
  size_t size = std::strlen(name) + 32;
  char* buffer = static_cast<char*>(env->alloc(size));
  // Every new name, and every name record an element lacks, is made before
  // any element changes: a refused allocation leaves every name as it was
  // (a record made meanwhile stays empty, which no one can tell).
  QelArrayI* copies = nullptr;
  try {
    copies = QelArrayI::Make(env->getInternalAllocator(), n);
    for (long i = 0; i < n; ++i) {
      QelExtractableI* e = getElement(i);
      if (e == nullptr) continue;
      QelGenAlloc* alloc = e->getEnv()->getGeneralAllocator();
      e->extension();
      QelSPrintf(buffer, static_cast<unsigned long>(size), "%s(%d)", name, static_cast<int>(i));
      QelArraySet(copies, i, QelCopyString(alloc, buffer));
    }
  } catch (...) {
    if (copies != nullptr) {
      for (long i = 0; i < n; ++i)
        if (QelExtractableI* e = getElement(i))
          QelFreeString(e->getEnv()->getGeneralAllocator(), QelArrayGet<char*>(copies, i));
      delete copies;
    }
    env->free(buffer, size);
    throw;
  }
  env->free(buffer, size);
  // Downward: an element held twice keeps the name of its first place.
  for (long i = n - 1; i >= 0; --i)
    if (QelExtractableI* e = getElement(i))
      e->getExtension()->adoptName(e->getEnv()->getGeneralAllocator(),
                                   QelArrayGet<char*>(copies, i));
  delete copies;
  QelSetNameArrayChange change(*this);
  env->change(change);
}

void QelExtractableArray::replaceByClone(QelEnvI* env) {
  long n = getSize();
  QelEnvI* home = env != nullptr ? env : _impl->getEnv();
  QelArrayI* fresh = QelArrayI::Make(home->getGeneralAllocator(), n);
  // One copy operation in each environment copied into: an object held
  // twice is cloned once, and a failure leaves no copy behind anywhere.
  std::vector<QelEnvI*> targets{home};
  home->beginCopy();
  try {
    for (long i = 0; i < n; ++i) {
      QelExtractableI* e = getElement(i);
      if (e == nullptr) continue;
      QelEnvI* target = env != nullptr ? env : e->getEnv();
      if (std::find(targets.begin(), targets.end(), target) == targets.end()) {
        targets.push_back(target);
        target->beginCopy();
      }
      QelArraySet(fresh, i, target->getClone(e));
    }
  } catch (...) {
    for (QelEnvI* target : targets) target->abandonCopy();
    delete fresh;
    throw;
  }
  for (QelEnvI* target : targets) target->endCopy();
  _impl = fresh;
}

std::ostream& operator<<(std::ostream& os, const QelArray<QelExtractable>& a) {
  if (a.getImpl() == nullptr) return os;
  QelPrintArrayForm(os, a.getSize(), [&a](std::ostream& o, long i) {
    QelExtractableI* e = a[i].getImpl();
    if (e != nullptr) e->display(o);
  });
  return os;
}
