// The kind queries of the extractable handle.
#include <qel/kernel/constraint.h>
#include <qel/model/model.h>
#include <qel/objective/objective.h>

namespace {
// One shape for every query pair: test the class, hand back a typed handle.
template <class Impl>
bool Is(const QelExtractable& x) {
  if (x.getImpl() == nullptr) throw QelEmptyHandleException();
  return x.getImpl()->isType(Impl::GetTypeInfo());
}
template <class Handle, class Impl>
Handle As(const QelExtractable& x) {
  return Is<Impl>(x) ? Handle(static_cast<Impl*>(x.getImpl())) : Handle();
}
}  // namespace

QelBool QelExtractable::isConstraint() const { return Is<QelConstraintI>(*this); }
QelConstraint QelExtractable::asConstraint() const {
  return As<QelConstraint, QelConstraintI>(*this);
}
QelBool QelExtractable::isObjective() const { return Is<QelObjectiveI>(*this); }
QelObjective QelExtractable::asObjective() const { return As<QelObjective, QelObjectiveI>(*this); }
QelBool QelExtractable::isModel() const { return Is<QelModelI>(*this); }
QelModel QelExtractable::asModel() const { return As<QelModel, QelModelI>(*this); }
QelBool QelExtractable::isNumExpr() const { return Is<QelNumExprI>(*this); }
QelNumExpr QelExtractable::asNumExpr() const { return As<QelNumExpr, QelNumExprI>(*this); }
QelBool QelExtractable::isIntExpr() const { return Is<QelIntExprI>(*this); }
QelIntExpr QelExtractable::asIntExpr() const { return As<QelIntExpr, QelIntExprI>(*this); }
QelBool QelExtractable::isVariable() const { return Is<QelNumVarI>(*this); }
QelNumVar QelExtractable::asVariable() const { return As<QelNumVar, QelNumVarI>(*this); }
