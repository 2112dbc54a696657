// Visitors over the graph of modeling objects.
//
// Each class presents its direct sub-extractables to a QelExtractableVisitor
// through visitSubExtractables (beginVisit, visitChildren per child or per
// array member, endVisit); the visitor decides whether to descend. The
// finders below answer the structural questions of the library: does an
// object hold something being removed (QelFindMarkedVisitor), a non-ground
// term (QelFindNongroundTerm), a decision variable (QelFindDecisionVar).
//
//   struct Counter : QelExtractableVisitor {
//     int n = 0;
//     void visitChildren(QelExtractableI*, QelExtractableI* c) override {
//       ++n;
//       c->visitSubExtractables(this);           // descend
//     }
//   } counter;
//   model.getImpl()->visitSubExtractables(&counter);
#ifndef QEL_EXTRACTABLE_VISITOR_H
#define QEL_EXTRACTABLE_VISITOR_H

#include <qel/collections/extractablearray.h>
#include <qel/extractable/extractable.h>

/// Walks the direct sub-extractables an object presents.
class QEL_API QelExtractableVisitor {
 public:
  /// Destroys the visitor.
  virtual ~QelExtractableVisitor();
  /// The visit of `x` begins; does nothing.
  virtual void beginVisit(QelExtractableI* x);
  /// `child` is a direct sub-extractable of `parent`; does nothing.
  virtual void visitChildren(QelExtractableI* parent, QelExtractableI* child);
  /// The visit of `x` ends; does nothing.
  virtual void endVisit(QelExtractableI* x);
  /// The elements of `children` are direct sub-extractables of `parent`:
  /// asks stop() before each element and calls the one-child form.
  virtual void visitChildren(QelExtractableI* parent, QelExtractableArray children);
  /// Whether the walk should stop; false.
  virtual QelBool stop() const;
};

/// Finds a direct sub-extractable that is null, ended, or being removed.
class QEL_API QelFindMarkedVisitor : public QelExtractableVisitor {
 public:
  using QelExtractableVisitor::visitChildren;
  /// Sets found when `child` is marked.
  void visitChildren(QelExtractableI* parent, QelExtractableI* child) override;
  /// The base array walk, unless already found.
  void visitChildren(QelExtractableI* parent, QelExtractableArray children) override;
  /// found.
  QelBool stop() const override { return found != 0; }
  /// Non-zero once a marked sub-extractable was seen.
  long found = 0;
};

/// Finds a term of non-ground type anywhere below an object (full descent).
class QEL_API QelFindNongroundTerm : public QelExtractableVisitor {
 public:
  /// Sets found when `x` has a non-ground type.
  void beginVisit(QelExtractableI* x) override;
  /// Descends into `child`.
  void visitChildren(QelExtractableI* parent, QelExtractableI* child) override;
  /// Descends into each element until found.
  void visitChildren(QelExtractableI* parent, QelExtractableArray children) override;
  /// found.
  QelBool stop() const override { return found != 0; }
  /// Non-zero once a non-ground term was seen.
  long found = 0;
};

/// Finds a decision variable below an object, using the environment's
/// decision-expression cache to cut the descent on cached answers of 1.
class QEL_API QelFindDecisionVar : public QelExtractableVisitor {
 public:
  /// Sets found when `x` is a variable (numeric or interval).
  void beginVisit(QelExtractableI* x) override;
  /// Consults the cache, then descends into `child`.
  void visitChildren(QelExtractableI* parent, QelExtractableI* child) override;
  /// Consults the cache, then descends into each element until found.
  void visitChildren(QelExtractableI* parent, QelExtractableArray children) override;
  /// found.
  QelBool stop() const override { return found != 0; }
  /// Non-zero once a decision variable was seen.
  long found = 0;
};

#endif
