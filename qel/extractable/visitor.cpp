// The visitor base and the three finders.
#include <qel/extractable/visitor.h>
#include <qel/kernel/constraint.h>

QelExtractableVisitor::~QelExtractableVisitor() = default;
void QelExtractableVisitor::beginVisit(QelExtractableI*) {}
void QelExtractableVisitor::visitChildren(QelExtractableI*, QelExtractableI*) {}
void QelExtractableVisitor::endVisit(QelExtractableI*) {}
QelBool QelExtractableVisitor::stop() const { return false; }

void QelExtractableVisitor::visitChildren(QelExtractableI* parent, QelExtractableArray children) {
  QelArrayI* a = children.getImpl();
  if (a == nullptr) return;
  long n = a->getSize();
  for (long i = 0; i < n; ++i) {
    if (stop()) return;
    visitChildren(parent, QelArrayGet<QelExtractableI*>(a, i));
  }
}

// ---- QelFindMarkedVisitor ---------------------------------------------------

void QelFindMarkedVisitor::visitChildren(QelExtractableI*, QelExtractableI* child) {
  if (found != 0) return;
  if (QelEnvI::IsMarked(child)) found = 1;
}

void QelFindMarkedVisitor::visitChildren(QelExtractableI* parent, QelExtractableArray children) {
  if (found == 0) QelExtractableVisitor::visitChildren(parent, children);
}

// ---- QelFindNongroundTerm ---------------------------------------------------

void QelFindNongroundTerm::beginVisit(QelExtractableI* x) {
  if (x->hasNongroundType()) found = 1;
}

void QelFindNongroundTerm::visitChildren(QelExtractableI*, QelExtractableI* child) {
  if (found == 0 && child != nullptr) child->visitSubExtractables(this);
}

void QelFindNongroundTerm::visitChildren(QelExtractableI*, QelExtractableArray children) {
  if (found != 0) return;
  QelArrayI* a = children.getImpl();
  if (a == nullptr) return;
  for (long i = 0; i < a->getSize() && found == 0; ++i) {
    QelExtractableI* e = QelArrayGet<QelExtractableI*>(a, i);
    if (e != nullptr) e->visitSubExtractables(this);
  }
}

// ---- QelFindDecisionVar -------------------------------------------------------

void QelFindDecisionVar::beginVisit(QelExtractableI* x) {
  if (x->isNumVar() || x->isType(QelIntervalVarI::GetTypeInfo())) found = 1;
}

namespace {
// A cached 1 answers at once; a cached 0 is not trusted to cut the descent.
bool CachedDecision(QelExtractableI* e) {
  QelDecisionExprMap* map = e->getEnv()->getDecisionExprMap();
  QelDecisionExprMap::Node* n = map->find(e);
  return n != nullptr && n->value == 1;
}
}  // namespace

void QelFindDecisionVar::visitChildren(QelExtractableI*, QelExtractableI* child) {
  if (found != 0 || child == nullptr) return;
  if (CachedDecision(child)) {
    found = 1;
    return;
  }
  child->visitSubExtractables(this);
}

void QelFindDecisionVar::visitChildren(QelExtractableI*, QelExtractableArray children) {
  if (found != 0) return;
  QelArrayI* a = children.getImpl();
  if (a == nullptr) return;
  long n = a->getSize();
  for (long i = 0; i < n; ++i) {
    QelExtractableI* e = QelArrayGet<QelExtractableI*>(a, i);
    if (e == nullptr) continue;
    if (CachedDecision(e)) {
      found = 1;
      return;
    }
    e->visitSubExtractables(this);
    if (found != 0) return;
  }
}
