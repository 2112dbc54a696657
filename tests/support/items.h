// Small extractable classes of the tests' own: stand-ins for the
// constraints and containers of the library when a test needs members,
// dependants or clones without the real classes.
#ifndef QEL_TESTS_SUPPORT_ITEMS_H
#define QEL_TESTS_SUPPORT_ITEMS_H

#include <ostream>

#include <qel/qel.h>

namespace qeltest {

/// A leaf object: no sub-extractables, prints "item" and its name or id,
/// clones itself.
class ItemI : public QelExtractableI {
  QEL_EXTRACTABLE_DECL(ItemI, QelExtractableI)

 public:
  explicit ItemI(QelEnvI* env, const char* name = nullptr) : QelExtractableI(env, name) {}
  QelExtractableI* makeClone(QelEnvI* env) const override {
    ++clones;
    return QelNewObject<ItemI>(env, env);
  }
  void visitSubExtractables(QelExtractableVisitor* v) override {
    v->beginVisit(this);
    v->endVisit(this);
  }
  void display(std::ostream& os) const override {
    os << "item ";
    printNameOrId(os, "#");
  }
  static inline int clones = 0;  ///< makeClone calls, for clone-once tests
};

/// An object holding other objects as direct sub-extractables (like a
/// constraint over expressions); the base atRemove applies to it.
class HolderI : public QelExtractableI {
  QEL_EXTRACTABLE_DECL(HolderI, QelExtractableI)

 public:
  HolderI(QelEnvI* env, QelExtractableI* a, QelExtractableI* b = nullptr)
      : QelExtractableI(env), _a(a), _b(b) {}
  void visitSubExtractables(QelExtractableVisitor* v) override {
    v->beginVisit(this);
    v->visitChildren(this, _a);
    if (_b != nullptr) v->visitChildren(this, _b);
    v->endVisit(this);
  }
  QelExtractableI* makeClone(QelEnvI* env) const override {
    return QelNewObject<HolderI>(env, env, env->getClone(_a),
                                 _b != nullptr ? env->getClone(_b) : nullptr);
  }
  void display(std::ostream& os) const override { os << "holder" << getId(); }

 private:
  QelExtractableI* _a;
  QelExtractableI* _b;
};

/// Makes an item in `env`.
inline ItemI* Item(QelEnv env, const char* name = nullptr) {
  return QelNewObject<ItemI>(env.getImpl(), env.getImpl(), name);
}

/// Makes a holder of `a` (and `b`) in `env`.
inline HolderI* Holder(QelEnv env, QelExtractableI* a, QelExtractableI* b = nullptr) {
  return QelNewObject<HolderI>(env.getImpl(), env.getImpl(), a, b);
}

}  // namespace qeltest

#endif
