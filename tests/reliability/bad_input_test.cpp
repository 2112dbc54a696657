// Bad input: every operation called on an empty handle, and every misuse
// the library documents, throws its exact exception (the class itself, not
// a relative, with its exact message) and leaves everything as it was.
//
// One test per public operation. Each one runs against the same populated
// environment (variables, expressions, every constraint family, objectives
// of one and several criteria, a model, a listening algorithm that extracted
// all of it), takes its observable state (worldstate.h), performs the bad
// call, checks the exception, and compares the state again: same objects,
// names, properties, members, expressions, use counts, registry records,
// notices heard and bytes held.
#include <functional>
#include <sstream>
#include <string>
#include <thread>
#include <typeinfo>
#include <vector>

#include "reliability/scenario.h"
#include "reliability/worldstate.h"

using namespace qeltest;
using namespace reliability;

namespace {

// A class of the test's own that has no clone mechanism.
class NoCloneI : public QelExtractableI {
  QEL_EXTRACTABLE_DECL(NoCloneI, QelExtractableI)

 public:
  explicit NoCloneI(QelEnvI* env) : QelExtractableI(env, "no clone") {}
  void visitSubExtractables(QelExtractableVisitor* v) override {
    v->beginVisit(this);
    v->endVisit(this);
  }
};
QEL_EXTRACTABLE_DEF(NoCloneI)

long BadHash(const QelExtractableI*, long bucketCount) { return bucketCount; }

struct BadInput : ::testing::Test {
  QelEnv env;
  QelEnv none{static_cast<QelEnvI*>(nullptr)};
  RecordingAlgorithmI* rec = nullptr;
  QelAlgorithm values;
  QelIntVar x, y, z;
  QelBoolVar b;
  QelNumVar f;
  QelIntExpr sum;
  QelNumExpr square, product, aggregate;
  QelRange cap, bare, aggRange;
  QelDiff diff;
  QelIntVarArray trio, load, where;
  QelIntArray weights;
  QelAllDiff allDiff;
  QelAllMinDistance spread;
  QelPack pack;
  QelSOS1 sos1;
  QelSOS2 sos2;
  QelObjective cost, squareCost, aggCost, lex;
  QelMultiCriterionExpr criteria, noArray, noCriteria;
  QelModel model;
  QelNumVarArray yz, withHole;
  QelNumArray oneCoef, twoCoefs;
  QelNumExpr half;
  QelInt documentedLeftover = 0;  // bytes a documented misuse leaves behind

  void SetUp() override {
    rec = MakeRecorder(env);
    values = QelAlgorithm(env);
    x = QelIntVar(env, 0, 9, "x");
    y = QelIntVar(env, 0, 9, "y");
    z = QelIntVar(env, 0, 9);
    b = QelBoolVar(env, "b");
    f = QelNumVar(env, 0, 5, "f");
    sum = x + y;
    square = QelNumExpr(x) * y;
    product = QelNumExpr(sum) * square;  // degree 3: a product object
    aggregate = product + 1.0;           // a linear term holding the product
    cap = QelRange(env, 1, sum, 8, "cap");
    bare = QelRange(env, 0, QelNumExpr(), 1, "bare");
    aggRange = QelRange(env, 0, aggregate, 100);
    diff = QelDiff(env, x, 3.0);
    trio = QelIntVarArray(QelExtractableArray(env, 3, x, y, z));
    allDiff = QelAllDiff(env, trio, "ad");
    spread = QelAllMinDistance(env, trio, 2);
    load = QelIntVarArray(env, 2, 0, 10);
    where = QelIntVarArray(env, 3, 0, 1);
    weights = QelIntArray(env, 3);
    pack = QelPack(env, load, where, weights, "pack");
    sos1 = QelSOS1(env, "s1");
    sos1->addVar(x);
    sos1->addVal(1);
    sos2 = QelSOS2(env);
    cost = QelObjective(env, sum, QelObjective::Minimize, "cost");  // shares sum with cap
    squareCost = QelObjective(env, square);
    aggCost = QelObjective(env, aggregate);  // shares the aggregate with aggRange
    criteria = QelStaticLex(env, x, sum);
    lex = QelMinimize(env, criteria, "lex");
    noArray = QelMultiCriterionExpr(env, QelNumExprArray(), QelMultiCriterionExprI::StaticLex);
    QelNumExprArray nothing(env, 0);
    noCriteria = QelMultiCriterionExpr(env, nothing, QelMultiCriterionExprI::DynamicLex);
    nothing.end();  // the criteria hold a copy
    model = QelModel(env, "m");
    for (QelExtractable member :
         {QelExtractable(cap), QelExtractable(diff), QelExtractable(allDiff), QelExtractable(pack),
          QelExtractable(sos1), QelExtractable(cost), QelExtractable(lex)})
      model.add(member);
    yz = QelNumVarArray(QelExtractableArray(env, 2, y, z));
    withHole = QelNumVarArray(QelExtractableArray(env, 2, y, QelExtractable()));
    half = f * 0.5;
    oneCoef = QelNumArray(env, 1);
    twoCoefs = QelNumArray(env, 2);
    x.getImpl()->setIntProperty("priority", 3);
    rec->extract(model.getImpl());
    rec->extract(squareCost.getImpl());
    rec->extract(aggCost.getImpl());
    rec->extract(aggRange.getImpl());
    values.setValue(x, 1);
  }

  void TearDown() override {
    // The criteria hold uses of expressions: they go before them.
    criteria.end();
    noArray.end();
    noCriteria.end();
    QelExtractableArray all = LiveObjects(env);
    all.endElements();
    all.end();
    for (QelArrayBase* a : std::vector<QelArrayBase*>{&trio, &load, &where, &weights, &yz,
                                                      &withHole, &oneCoef, &twoCoefs})
      a->end();
    values.end();
    QelAlgorithm(rec).end();
    EXPECT_EQ(env.getImpl()->getBytesInUse(), documentedLeftover)
        << "memory left after everything ended";
    env.end();
  }

  // How many algorithms are attached.
  long Algorithms() const {
    long n = 0;
    for (int s = 0; s < QelExtractionRegistry::MaxAlgorithms; ++s)
      n += env.getImpl()->getAlgorithm(s) != nullptr;
    return n;
  }

  WorldState State() const {
    std::vector<std::function<std::string()>> probes;
    for (const QelExtractableArray* a : {static_cast<const QelExtractableArray*>(&trio),
                                         static_cast<const QelExtractableArray*>(&load),
                                         static_cast<const QelExtractableArray*>(&where),
                                         static_cast<const QelExtractableArray*>(&yz),
                                         static_cast<const QelExtractableArray*>(&withHole)})
      probes.push_back([a] { return ArrayFacts(*a); });
    probes.push_back([this] { return ArrayFacts(oneCoef) + ArrayFacts(twoCoefs); });
    probes.push_back([this] { return "algorithms " + std::to_string(Algorithms()); });
    for (const QelMultiCriterionExpr* mc : {&criteria, &noArray, &noCriteria})
      probes.push_back([mc] {
        std::ostringstream os;
        try {
          mc->getImpl()->display(os);
        } catch (const QelException& e) {
          os << " / " << e.what();
        }
        return os.str();
      });
    return Capture(env.getImpl(), env.getImpl()->getBytesInUse(), {rec}, probes);
  }

  // Runs `op`, which must throw exactly E with `message` (null: no
  // message), and checks that nothing observable changed.
  template <class E, class F>
  void ExpectRefused(const char* message, F op) {
    WorldState before = State();
    bool threw = false;
    try {
      op();
    } catch (const E& e) {
      threw = true;
      EXPECT_TRUE(typeid(e) == typeid(E)) << "a class derived from the one expected was thrown";
      if (message == nullptr)
        EXPECT_EQ(e.getMessage(), nullptr) << e.getMessage();
      else
        EXPECT_STREQ(e.getMessage(), message);
    } catch (const std::exception& e) {
      threw = true;
      ADD_FAILURE() << "wrong exception " << typeid(e).name() << ": " << e.what();
    }
    EXPECT_TRUE(threw) << "nothing was thrown";
    EXPECT_EQ(Difference(before, State()), "");
  }
};

const char* const kEmpty = "Using empty Handle";
const char* const kEmptyEnv = "QelEnv: using empty handle";
const char* const kEmptyObjective = "Using empty QelObjective handle.";
const char* const kNoArray = "QelMultiCriterionExprI: numExprArray not initialized";

}  // namespace

// One test per operation: the name says which, the body is the bad call.
#define REFUSED(Name, Exception, message, ...)               \
  TEST_F(BadInput, Name) {                                   \
    ExpectRefused<Exception>(message, [&] { __VA_ARGS__; }); \
  }

// ---- the environment and its memory ------------------------------------------

REFUSED(EnvMemoryManagerOfEmptyHandle, QelEmptyHandleException, kEmptyEnv,
        (void)none.getMemoryManager())

TEST_F(BadInput, AlgorithmBeyondSixtyFour) {
  std::vector<QelAlgorithm> more;
  while (Algorithms() < QelExtractionRegistry::MaxAlgorithms) more.emplace_back(env);
  ExpectRefused<QelWrongUsage>("QelEnv: too many algorithms attached to one environment",
                               [&] { QelAlgorithm(env).end(); });
  for (QelAlgorithm& a : more) a.end();
}

TEST_F(BadInput, AllocationFromAForeignThread) {
  ExpectRefused<QelEnvAllocatorThreadMismatch>(
      "Environment used from a thread that is not its allocator thread", [&] {
        std::exception_ptr failure;
        std::thread t([&] {
          try {
            env.getImpl()->alloc(24);
          } catch (...) {
            failure = std::current_exception();
          }
        });
        t.join();
        if (failure) std::rethrow_exception(failure);
      });
}

TEST_F(BadInput, AllocationWhileSwitchedOff) {
  env.getImpl()->setAllocationDisabled(true);
  ExpectRefused<QelEnvAllocationDisabled>("Environment allocation is disabled",
                                          [&] { env.getImpl()->alloc(24); });
  env.getImpl()->setAllocationDisabled(false);
}

TEST_F(BadInput, AllocationOfASizeWithoutClass) {
  QelEnv other(QelEnvConfig{16384, QelMemory::DefaultNumClasses, true});
  QelInt before = other.getImpl()->getBytesInUse();
  ExpectRefused<QelMemoryException>("Out of memory", [&] { other.getImpl()->alloc(10000); });
  EXPECT_EQ(other.getImpl()->getBytesInUse(), before);
  other.end();
}

TEST_F(BadInput, DecisionCacheWithABadHash) {
  QelDecisionExprMap* map = env.getImpl()->getDecisionExprMap();
  map->setHashFunction(&BadHash);
  ExpectRefused<QelWrongUsage>("Hash function returned bad index",
                               [&] { (void)model.getImpl()->isDecisionExpr(); });
  map->setHashFunction(&QelDecisionExprMap::DefaultHash);
}

// ---- algorithms ------------------------------------------------------------------

REFUSED(AlgorithmInEmptyEnvironment, QelEmptyHandleException, kEmptyEnv, QelAlgorithm a(none))
REFUSED(AlgorithmExtractOnEmptyHandle, QelEmptyHandleException, kEmpty, QelAlgorithm().extract(x))
REFUSED(AlgorithmSetValueOnEmptyHandle, QelEmptyHandleException, kEmpty,
        QelAlgorithm().setValue(x, 1))
REFUSED(AlgorithmGetValueOnEmptyHandle, QelEmptyHandleException, kEmpty,
        (void)QelAlgorithm().getValue(x))
REFUSED(AlgorithmExtractOfEmptyHandle, QelEmptyHandleException, kEmpty,
        values.extract(QelExtractable()))
REFUSED(AlgorithmUnextractOfNothing, QelEmptyHandleException, kEmpty,
        values.getImpl()->unextract(nullptr))
REFUSED(AlgorithmSetValueOfEmptyVariable, QelEmptyHandleException, kEmpty,
        values.setValue(QelNumVar(), 1))
REFUSED(AlgorithmValueNeverSet, QelWrongUsage, "QelAlgorithm: no value for this variable: y",
        (void)values.getValue(y))
REFUSED(AlgorithmValueOfEmptyExpression, QelEmptyHandleException, kEmpty,
        (void)values.getValue(QelNumExpr()))
REFUSED(EvaluationWithEmptyAlgorithm, QelEmptyHandleException, kEmpty,
        (void)cap.getImpl()->eval(QelAlgorithm()))

TEST_F(BadInput, AlgorithmSetValueOfAVariableNoLongerRegistered) {
  // An object whose id is -1 (what ending writes into it before it goes).
  QelNumVarI* v = QelNewObject<QelNumVarI>(env.getImpl(), env.getImpl(), 0, 1, QelVarType::Int);
  env.getImpl()->unregister(v);
  ExpectRefused<QelWrongUsage>("QelAlgorithm: the variable has ended",
                               [&] { values.getImpl()->setValue(v, 1); });
  env.getImpl()->init(v);
  v->end();
}

TEST_F(BadInput, HookModeExtractionWithoutEngine) {
  QelAlgorithm engine(env);
  engine.getImpl()->useHooks();
  ExpectRefused<QelAlgorithm::ExtractFailure>(nullptr, [&] { engine.extract(cap); });
  engine.end();
}

TEST_F(BadInput, HookModeUnextractionWithoutEngine) {
  QelAlgorithm engine(env);
  engine.extract(cap);
  engine.getImpl()->useHooks();
  ExpectRefused<QelAlgorithm::RemoveFailure>(nullptr,
                                             [&] { engine.getImpl()->unextract(cap.getImpl()); });
  engine.end();
}

// ---- expressions and variables ---------------------------------------------------

REFUSED(NumSumOfEmptyHandle, QelEmptyHandleException, kEmpty, (void)(QelNumExpr() + f))
REFUSED(NumSumWithConstantOfEmptyHandle, QelEmptyHandleException, kEmpty,
        (void)(QelNumExpr() + 1.5))
REFUSED(NumDifferenceOfEmptyHandle, QelEmptyHandleException, kEmpty, (void)(f - QelNumExpr()))
REFUSED(NumNegationOfEmptyHandle, QelEmptyHandleException, kEmpty, (void)(-QelNumExpr()))
REFUSED(NumScalingOfEmptyHandle, QelEmptyHandleException, kEmpty, (void)(2.0 * QelNumExpr()))
REFUSED(NumProductOfEmptyHandle, QelEmptyHandleException, kEmpty, (void)(f* QelNumExpr()))
REFUSED(IntSumOfEmptyHandle, QelEmptyHandleException, kEmpty, (void)(QelIntExpr() + x))
REFUSED(IntDifferenceOfEmptyHandle, QelEmptyHandleException, kEmpty, (void)(x - QelIntExpr()))
REFUSED(IntNegationOfEmptyHandle, QelEmptyHandleException, kEmpty, (void)(-QelIntExpr()))
REFUSED(IntScalingOfEmptyHandle, QelEmptyHandleException, kEmpty, (void)(QelIntExpr() * 3))
REFUSED(IntProductOfEmptyHandle, QelEmptyHandleException, kEmpty, (void)(x* QelIntExpr()))
REFUSED(ConstantInEmptyEnvironment, QelEmptyHandleException, kEmptyEnv, QelNumExpr e(none, 1.0))
REFUSED(IntConstantInEmptyEnvironment, QelEmptyHandleException, kEmptyEnv,
        QelIntExpr e(none, QelInt(1)))
REFUSED(NumVarInEmptyEnvironment, QelEmptyHandleException, kEmptyEnv, QelNumVar v(none, 0, 1))
REFUSED(TypedVarInEmptyEnvironment, QelEmptyHandleException, kEmptyEnv,
        QelNumVar v(none, 0, 1, QelVarType::Int))
REFUSED(IntVarInEmptyEnvironment, QelEmptyHandleException, kEmptyEnv, QelIntVar v(none, 0, 1))
REFUSED(BoolVarInEmptyEnvironment, QelEmptyHandleException, kEmptyEnv, QelBoolVar v(none))
REFUSED(NumVarArrayInEmptyEnvironment, QelEmptyHandleException, kEmptyEnv,
        QelNumVarArray v(none, 3, 0, 1))
REFUSED(IntVarArrayInEmptyEnvironment, QelEmptyHandleException, kEmptyEnv,
        QelIntVarArray v(none, 3, 0, 1))
REFUSED(LinearIteratorOfEmptyHandle, QelEmptyHandleException, kEmpty,
        (void)QelNumExpr().getLinearIterator())
REFUSED(QuadIteratorOfEmptyHandle, QelEmptyHandleException, kEmpty,
        (void)QelNumExpr().getQuadIterator())
REFUSED(ConstantOfEmptyHandle, QelEmptyHandleException, kEmpty, (void)QelNumExpr().getConstant())
REFUSED(TermSetCoefOfEmptyVariable, QelEmptyHandleException, kEmpty,
        static_cast<QelNumLinTermI*>(aggregate.getImpl())->setCoef(QelNumVar(), 1))
REFUSED(TermSetCoefsOfDifferentSizes, QelWrongUsage,
        "QelNumLinTermI::setCoef: arrays of different sizes",
        static_cast<QelNumLinTermI*>(aggregate.getImpl())->setCoef(yz, oneCoef, QelNumArray()))
REFUSED(
    TermSetCoefsWithAnEmptyElement, QelEmptyHandleException, kEmpty,
    static_cast<QelNumLinTermI*>(aggregate.getImpl())->setCoef(withHole, twoCoefs, QelNumArray()))
REFUSED(TermSetQuadCoefOfEmptyVariable, QelEmptyHandleException, kEmpty,
        static_cast<QelNumLinTermI*>(aggregate.getImpl())->setQuadCoef(x, QelNumVar(), 1))
REFUSED(TermAppendOfNoNode, QelEmptyHandleException, kEmpty,
        static_cast<QelNumLinTermI*>(aggregate.getImpl())->appendTerm(nullptr))
REFUSED(TermAddTermOfNoVariable, QelEmptyHandleException, kEmpty,
        static_cast<QelNumLinTermI*>(aggregate.getImpl())->addTerm(1, nullptr))
REFUSED(TermAddQuadTermOfNoVariable, QelEmptyHandleException, kEmpty,
        static_cast<QelNumLinTermI*>(aggregate.getImpl())->addQuadTerm(1, x.getImpl(), nullptr))
REFUSED(TermAddAggregateOfNothing, QelEmptyHandleException, kEmpty,
        static_cast<QelNumLinTermI*>(aggregate.getImpl())->addAggregate(1, nullptr))
REFUSED(TermAddScaledOfNothing, QelEmptyHandleException, kEmpty,
        static_cast<QelNumLinTermI*>(aggregate.getImpl())->addScaled(nullptr, 2))
REFUSED(IntTermAddTermOfAFloatVariable, QelWrongUsage,
        "QelIntLinTermI::addTerm: the variable is not integral: f",
        static_cast<QelIntLinTermI*>(sum.getImpl())->addTerm(1, f.getImpl()))
REFUSED(IntTermAddQuadTermOfAFloatVariable, QelWrongUsage,
        "QelIntLinTermI::addQuadTerm: a variable is not integral: f",
        static_cast<QelIntLinTermI*>(sum.getImpl())->addQuadTerm(1, x.getImpl(), f.getImpl()))
REFUSED(IntTermAddAggregateNotIntegral, QelWrongUsage,
        "QelIntLinTermI::addAggregate: the expression is not integral: 0.5 * f",
        static_cast<QelIntLinTermI*>(sum.getImpl())->addAggregate(1, half.getImpl()))
REFUSED(IntTermAddScaledNotIntegral, QelWrongUsage,
        "QelIntLinTermI::addScaled: the expression is not integral: f",
        static_cast<QelIntLinTermI*>(sum.getImpl())->addScaled(f.getImpl(), 2))
REFUSED(ProductOfNoFactor, QelEmptyHandleException, kEmpty,
        QelNewObject<QelNumProductI>(env.getImpl(), env.getImpl(), nullptr, square.getImpl()))
REFUSED(LinearityTestOfNothing, QelEmptyHandleException, kEmpty, QelTestIsLinear(nullptr))
REFUSED(LinearityTestOfAProduct, QelWrongUsage, "QelTestIsLinear: expression is not linear",
        QelTestIsLinear(product.getImpl()))
REFUSED(SumOfEmptyArray, QelEmptyHandleException, kEmpty, (void)QelSum(QelNumExprArray()))
REFUSED(SumOfArrayWithEmptyElement, QelEmptyHandleException, kEmpty, (void)QelSum(withHole))
REFUSED(IntSumOfEmptyArray, QelEmptyHandleException, kEmpty, (void)QelSum(QelIntExprArray()))
REFUSED(ScalarProductOfDifferentSizes, QelWrongUsage, "QelScalProd: arrays of different sizes",
        (void)QelScalProd(yz, oneCoef))

// ---- constraints -------------------------------------------------------------------

REFUSED(EvaluationOfAConstraintThatCannotBeChecked, QelNotImplemented,
        "QelConstraintI::eval is not available for this constraint",
        (void)sos1.getImpl()->eval(values))
REFUSED(RangeInEmptyEnvironment, QelEmptyHandleException, kEmptyEnv, QelRange r(none, 0, sum, 1))
REFUSED(RangeLinearIteratorOfEmptyHandle, QelWrongUsage, "empty handle",
        (void)QelRange().getLinearIterator())
REFUSED(RangeQuadIteratorOfEmptyHandle, QelWrongUsage, "empty handle",
        (void)QelRange().getQuadIterator())
REFUSED(RangeLinearIteratorWithoutExpression, QelWrongUsage, "can not get an iterator",
        (void)bare.getLinearIterator())
REFUSED(RangeQuadIteratorWithoutExpression, QelWrongUsage, "can not get an iterator",
        (void)bare.getQuadIterator())
REFUSED(RangeEvaluationWithoutExpression, QelWrongUsage,
        "QelRangeI::eval: the range bare has no expression", (void)bare.getImpl()->eval(values))
REFUSED(NumberSetInEmptyEnvironment, QelEmptyHandleException, kEmptyEnv, QelNumSet s(none))
REFUSED(SetVariableInEmptyEnvironment, QelEmptyHandleException, kEmptyEnv,
        QelIntSetVar s(none, weights))
REFUSED(IntervalVariableInEmptyEnvironment, QelEmptyHandleException, kEmptyEnv,
        QelIntervalVar i(none, 1, 0, 10))
REFUSED(DifferenceFromAConstantOfEmptyExpression, QelEmptyHandleException, kEmpty,
        QelDiff d(env, QelNumExpr(), 3.0))
REFUSED(DifferenceOfEmptyLeftExpression, QelEmptyHandleException, kEmpty,
        QelDiff d(env, QelNumExpr(), y))
REFUSED(DifferenceOfEmptyRightExpression, QelEmptyHandleException, kEmpty,
        QelDiff d(env, x, QelNumExpr()))
REFUSED(AllDiffOfEmptyVariableArray, QelEmptyHandleException, kEmpty,
        QelAllDiff a(env, QelIntVarArray()))
REFUSED(AllDiffOfEmptyExpressionArray, QelEmptyHandleException, kEmpty,
        QelAllDiff a(env, QelIntExprArray()))
REFUSED(AllDiffOfVariablesInEmptyEnvironment, QelEmptyHandleException, kEmptyEnv,
        QelAllDiff a(none, trio))
REFUSED(AllDiffInEmptyEnvironment, QelEmptyHandleException, kEmptyEnv, QelAllDiff a(none))
REFUSED(AllMinDistanceOfEmptyVariableArray, QelEmptyHandleException, kEmpty,
        QelAllMinDistance a(env, QelIntVarArray(), 2))
REFUSED(AllMinDistanceOfEmptyExpressionArray, QelEmptyHandleException, kEmpty,
        QelAllMinDistance a(env, QelIntExprArray(), 2))
REFUSED(AllMinDistanceInEmptyEnvironment, QelEmptyHandleException, kEmptyEnv,
        QelAllMinDistance a(none, QelInt(2)))
REFUSED(AllDiffColumnToAChangeVisitor, QelNotImplemented,
        "Column Wise with QelDeleter not implemented", RecordingVisitor v;
        allDiff().visitChange(env.getImpl(), nullptr, &v))
REFUSED(PackWithEmptyWeights, QelEmptyHandleException, kEmpty,
        QelPack p(env, load, where, QelIntArray()))
REFUSED(PackWithEmptyWhere, QelEmptyHandleException, kEmpty,
        QelPack p(env, load, QelIntExprArray(), weights))
REFUSED(PackWithEmptyLoad, QelEmptyHandleException, kEmpty,
        QelPack p(env, QelIntExprArray(), where, weights))
REFUSED(PackWithWhereAndWeightsOfDifferentSizes, QelPack::QelDifferentSizeException,
        "QelPack: Where and weight arrays have different size", QelPack p(env, load, load, weights))
REFUSED(PackInEmptyEnvironment, QelEmptyHandleException, kEmptyEnv,
        QelPack p(none, load, where, weights))
REFUSED(UniformPackInEmptyEnvironment, QelEmptyHandleException, kEmptyEnv,
        QelPack p(none, load, where))
REFUSED(SOS1InEmptyEnvironment, QelEmptyHandleException, kEmptyEnv, QelSOS1 s(none))
REFUSED(SOS2InEmptyEnvironment, QelEmptyHandleException, kEmptyEnv, QelSOS2 s(none))

// ---- the extractable handle ----------------------------------------------------------

REFUSED(ExtractableGetEnv, QelEmptyHandleException, kEmpty, (void)QelExtractable().getEnv())
REFUSED(ExtractableGetId, QelEmptyHandleException, kEmpty, (void)QelExtractable().getId())
REFUSED(ExtractableGetName, QelEmptyHandleException, kEmpty, (void)QelExtractable().getName())
REFUSED(ExtractableSetName, QelEmptyHandleException, kEmpty, QelExtractable().setName("n"))
REFUSED(ExtractableSetLocation, QelEmptyHandleException, kEmpty,
        QelExtractable().setLocation("f", 1))
REFUSED(ExtractableSetObject, QelEmptyHandleException, kEmpty, QelExtractable().setObject(nullptr))
REFUSED(ExtractableGetObject, QelEmptyHandleException, kEmpty, (void)QelExtractable().getObject())
REFUSED(ExtractableEnd, QelEmptyHandleException, kEmpty, QelExtractable().end())
REFUSED(ExtractableRemoveFromAll, QelEmptyHandleException, kEmpty, QelExtractable().removeFromAll())
REFUSED(ExtractableIsConstraint, QelEmptyHandleException, kEmpty,
        (void)QelExtractable().isConstraint())
REFUSED(ExtractableAsConstraint, QelEmptyHandleException, kEmpty,
        (void)QelExtractable().asConstraint())
REFUSED(ExtractableIsObjective, QelEmptyHandleException, kEmpty,
        (void)QelExtractable().isObjective())
REFUSED(ExtractableAsObjective, QelEmptyHandleException, kEmpty,
        (void)QelExtractable().asObjective())
REFUSED(ExtractableIsModel, QelEmptyHandleException, kEmpty, (void)QelExtractable().isModel())
REFUSED(ExtractableAsModel, QelEmptyHandleException, kEmpty, (void)QelExtractable().asModel())
REFUSED(ExtractableIsNumExpr, QelEmptyHandleException, kEmpty, (void)QelExtractable().isNumExpr())
REFUSED(ExtractableAsNumExpr, QelEmptyHandleException, kEmpty, (void)QelExtractable().asNumExpr())
REFUSED(ExtractableIsIntExpr, QelEmptyHandleException, kEmpty, (void)QelExtractable().isIntExpr())
REFUSED(ExtractableAsIntExpr, QelEmptyHandleException, kEmpty, (void)QelExtractable().asIntExpr())
REFUSED(ExtractableIsVariable, QelEmptyHandleException, kEmpty, (void)QelExtractable().isVariable())
REFUSED(ExtractableAsVariable, QelEmptyHandleException, kEmpty, (void)QelExtractable().asVariable())

TEST_F(BadInput, CloneOfAClassWithoutCloneMechanism) {
  QelEnv copy;
  NoCloneI* odd = QelNewObject<NoCloneI>(env.getImpl(), env.getImpl());
  model.add(odd);
  QelInt copyBytes = copy.getImpl()->getBytesInUse();
  // Everything else of the model is cloned before the odd member is met:
  // the failure must take every one of those copies back.
  ExpectRefused<QelExtractable::NoCloneMechanismException>(
      "Extractable do not have clone mechanism",
      [&] { copy.getImpl()->getClone(model.getImpl()); });
  EXPECT_EQ(copy.getImpl()->getNumberOfExtractables(), 0);
  EXPECT_EQ(copy.getImpl()->getBytesInUse(), copyBytes);
  std::ostringstream printed;
  QelExtractable::NoCloneMechanismException(odd).print(printed);
  EXPECT_EQ(printed.str(),
            "Extractable with id " + std::to_string(odd->getId()) + " do not have clone mechanism");
  copy.end();
}

// ---- named properties ------------------------------------------------------------------

REFUSED(PropertyNotPresent, QelNamedPropertySet::NotPresent, "weight",
        (void)x.getImpl()->getProperty("weight"))
REFUSED(IntPropertyNotPresent, QelNamedPropertySet::NotPresent, "weight",
        (void)x.getImpl()->getIntProperty("weight"))
REFUSED(StringPropertyOfAnotherFamily, QelNamedPropertySet::BadType, "priority",
        (void)x.getImpl()->getStringProperty("priority"))
REFUSED(NumPropertyOfAnotherFamily, QelNamedPropertySet::BadType, "priority",
        (void)x.getImpl()->getNumProperty("priority"))
REFUSED(AnyPropertyOfAnotherFamily, QelNamedPropertySet::BadType, "priority",
        (void)x.getImpl()->getAnyProperty("priority"))
REFUSED(SettingAPropertyOfAnotherFamily, QelNamedPropertySet::BadType, "priority",
        x.getImpl()->setNumProperty("priority", 2.5))
REFUSED(RemovingAPropertyByNameWithoutSet, QelNamedPropertySet::NotPresent, "priority",
        (void)y.getImpl()->removeProperty("priority"))

TEST_F(BadInput, RemovingAPropertyWithoutAnyRecord) {
  QelNamedIntProperty p(env.getMemoryManager(), "loose", 1);
  ExpectRefused<QelNamedPropertySet::NotPresent>(
      "loose", [&] { (void)z.getImpl()->removeProperty(p.getImpl()); });
  p.getImpl()->end();
}

TEST_F(BadInput, RemovingAPropertyWithoutSet) {
  QelNamedIntProperty p(env.getMemoryManager(), "loose", 1);
  ExpectRefused<QelNamedPropertySet::NotPresent>(
      "loose", [&] { (void)cap.getImpl()->removeProperty(p.getImpl()); });
  p.getImpl()->end();
}

// ---- notices and columns ------------------------------------------------------------

REFUSED(NoticeWithoutArray, QelWrongUsage,
        "QelChange::getChangedExtractableArray can not be called",
        (void)QelSetNameChange(x.getImpl()).getChangedExtractableArray())
REFUSED(NoticeWithoutObject, QelWrongUsage, "QelChange::getChangedExtractable can not be called",
        (void)QelRemoveFromAllChange(QelExtractableArray()).getChangedExtractable())
REFUSED(ColumnInstalledWithoutObject, QelAddExtractable::CannotAddExtractableException,
        "Cannot add new QelExtractable to extractor", QelAddValueToObj(cost, 2).install(nullptr))
REFUSED(ObjectiveColumnOfSomethingElseThanAVariable, QelEmptyHandleException, kEmpty,
        QelAddValueToObj(cost, 2).install(model.getImpl()))
REFUSED(ObjectiveColumnOfSeveralCriteria, QelNotAllowedWithMultiCriterionException,
        "QelObjective::addVar", QelAddValueToObj(lex, 2).install(f.getImpl()))

TEST_F(BadInput, ColumnDestroyedFromAForeignThread) {
  QelAddExtractable* column = QelAddValueToObj(cost, 2).getCopy(env.getImpl());
  ExpectRefused<QelEnvAllocatorThreadMismatch>(
      "Environment used from a thread that is not its allocator thread", [&] {
        std::exception_ptr failure;
        std::thread t([&] {
          try {
            column->destroy(env.getImpl());
          } catch (...) {
            failure = std::current_exception();
          }
        });
        t.join();
        if (failure) std::rethrow_exception(failure);
      });
  EXPECT_EQ(static_cast<QelAddValueToObj*>(column)->getValue(), 2);
  column->destroy(env.getImpl());
}

// ---- collections ----------------------------------------------------------------------

TEST_F(BadInput, CountedArrayWithAWrongCount) {
  // Documented: the empty array made before the count is checked stays with
  // the environment; nothing else changes.
  WorldState before = State();
  EXPECT_EQ(MessageOf<QelWrongUsage>([&] { QelExtractableArray a(env, 3, x, y); }),
            "QelExtractableArray::QelExtractableArray: n != 2");
  WorldState after = State();
  EXPECT_GT(after.bytes, before.bytes);
  documentedLeftover = after.bytes - before.bytes;
  after.bytes = before.bytes;
  EXPECT_EQ(Difference(before, after), "");
}

TEST_F(BadInput, CountedSetArrayWithAWrongCount) {
  WorldState before = State();
  EXPECT_EQ(MessageOf<QelWrongUsage>([&] { QelSOS1Array a(env, 3, sos1); }),
            "QelSOS1Array::QelSOS1Array: n !=1");
  WorldState after = State();
  EXPECT_GT(after.bytes, before.bytes);
  documentedLeftover = after.bytes - before.bytes;
  after.bytes = before.bytes;
  EXPECT_EQ(Difference(before, after), "");
}

REFUSED(MemberListAddOfEmptyArray, QelEmptyHandleException, kEmpty,
        model.getImpl()->getMembers().add(QelExtractableArray()))
REFUSED(MemberListRemoveOfEmptyArray, QelEmptyHandleException, kEmpty,
        model.getImpl()->getMembers().remove(QelExtractableArray(), QelExtractableArray()))

// ---- the model ----------------------------------------------------------------------------

REFUSED(ModelInEmptyEnvironment, QelEmptyHandleException, kEmptyEnv, QelModel m(none))
REFUSED(ModelAddToEmptyHandle, QelEmptyHandleException, "trying to add to an empty handle QelModel",
        QelModel().add(x))
REFUSED(ModelAddOfEmptyHandle, QelEmptyHandleException, "trying to add an empty handle extractable",
        model.add(QelExtractable()))
REFUSED(ModelAddArrayToEmptyHandle, QelEmptyHandleException, "trying to add 0 extractor handle",
        QelModel().add(trio))
REFUSED(ModelAddOfEmptyArray, QelEmptyHandleException, "Using empty QelExtractableArray handle.",
        model.add(QelExtractableArray()))
REFUSED(ModelRemoveFromEmptyHandle, QelEmptyHandleException, "trying to remove 0 extractor handle",
        QelModel().remove(cap))
REFUSED(ModelRemoveOfEmptyHandle, QelEmptyHandleException, "trying to remove 0 extractable handle",
        model.remove(QelExtractable()))
REFUSED(ModelRemoveArrayFromEmptyHandle, QelEmptyHandleException,
        "trying to remove 0 extractor handle", QelModel().remove(trio))
REFUSED(ModelRemoveOfEmptyArray, QelEmptyHandleException, "Using empty QelExtractableArray handle.",
        model.remove(QelExtractableArray()))
REFUSED(ModelExpandIntoEmptyHandle, QelEmptyHandleException,
        "Expanding to an empty QelModel handle.", QelModel().expand(cap))
REFUSED(ModelExpandOfEmptyHandle, QelEmptyHandleException,
        "trying to expand an empty extractable handle", model.expand(QelExtractable()))
REFUSED(ModelIteratorOfEmptyHandle, QelEmptyHandleException, "Using empty QelModel handle.",
        QelModel::Iterator it{QelModel()})

// ---- objectives ----------------------------------------------------------------------------

REFUSED(ObjectiveOfConstantInEmptyEnvironment, QelEmptyHandleException, kEmptyEnv,
        QelObjective o(none, 1.0))
REFUSED(ObjectiveOfExpressionInEmptyEnvironment, QelEmptyHandleException, kEmptyEnv,
        QelObjective o(none, QelNumExprArg(sum)))
REFUSED(ObjectiveOfCriteriaInEmptyEnvironment, QelEmptyHandleException, kEmptyEnv,
        QelObjective o(none, criteria))
REFUSED(ObjectiveOfEmptyExpression, QelEmptyHandleException, "Using empty QelNumExpr handle.",
        QelObjective o(env, QelNumExprArg()))
REFUSED(ObjectiveGetSenseOfEmptyHandle, QelEmptyHandleException, kEmptyObjective,
        (void)QelObjective().getSense())
REFUSED(ObjectiveSetSenseOfEmptyHandle, QelEmptyHandleException, kEmptyObjective,
        QelObjective().setSense(QelObjective::Maximize))
REFUSED(ObjectiveGetExprOfEmptyHandle, QelEmptyHandleException, kEmptyObjective,
        (void)QelObjective().getExpr())
REFUSED(ObjectiveExpressionConversionOfEmptyHandle, QelEmptyHandleException, kEmptyObjective,
        (void)static_cast<QelNumExprArg>(QelObjective()))
REFUSED(ObjectiveGetConstOfEmptyHandle, QelEmptyHandleException, kEmptyObjective,
        (void)QelObjective().getConst())
REFUSED(ObjectiveSetConstOfEmptyHandle, QelEmptyHandleException, kEmptyObjective,
        QelObjective().setConst(1))
REFUSED(ObjectiveSetExprOfEmptyHandle, QelEmptyHandleException, kEmptyObjective,
        QelObjective().setExpr(sum))
REFUSED(ObjectiveSetCoefOfEmptyHandle, QelEmptyHandleException, "Using empty handle",
        QelObjective().setLinearCoef(x, 1))
REFUSED(ObjectiveSetCoefsOfEmptyHandle, QelEmptyHandleException, "Using empty handle",
        QelObjective().setLinearCoefs(yz, twoCoefs))
REFUSED(ObjectiveSetQuadCoefOfEmptyHandle, QelEmptyHandleException, "Using empty handle",
        QelObjective().setQuadCoef(x, y, 1))
REFUSED(ObjectiveLinearIteratorOfEmptyHandle, QelWrongUsage, "empty handle",
        (void)QelObjective().getLinearIterator())
REFUSED(ObjectiveQuadIteratorOfEmptyHandle, QelWrongUsage, "empty handle",
        (void)QelObjective().getQuadIterator())
REFUSED(ObjectiveSetExprOfEmptyExpression, QelEmptyHandleException,
        "Using empty QelNumExpr handle.", cost.setExpr(QelNumExprArg()))
// The expression of `cost` is shared with the range `cap`: a refusal must
// not leave a copy of it behind.
REFUSED(ObjectiveSetCoefOfEmptyVariable, QelEmptyHandleException, kEmpty,
        cost.setLinearCoef(QelNumVar(), 1))
REFUSED(ObjectiveSetCoefsOfDifferentSizes, QelWrongUsage,
        "QelNumLinTermI::setCoef: arrays of different sizes", cost.setLinearCoefs(yz, oneCoef))
REFUSED(ObjectiveSetCoefsWithAnEmptyElement, QelEmptyHandleException, kEmpty,
        cost.setLinearCoefs(withHole, twoCoefs))
REFUSED(ObjectiveSetQuadCoefOfEmptyVariable, QelEmptyHandleException, kEmpty,
        cost.setQuadCoef(QelNumVar(), y, 1))
// The aggregate is shared (with aggRange): each setter copies it first, then
// refuses; the objective keeps the copy and sends nothing.
TEST_F(BadInput, ObjectiveSettersOfASharedAggregateRefuseAfterCopying) {
  const char* const refusal = "You can not change the coefficient of an aggregate expression";
  std::vector<std::function<void()>> setters = {[&] { aggCost.setLinearCoef(x, 1); },
                                                [&] { aggCost.setLinearCoefs(yz, twoCoefs); },
                                                [&] { aggCost.setQuadCoef(x, y, 1); }};
  for (const std::function<void()>& setter : setters) {
    QelNumExprI* shared = aggRange.getImpl()->getExpr();
    aggCost.setExpr(QelNumExpr(shared));
    ASSERT_EQ(aggCost.getImpl()->getExpr(), shared);
    QelInt objects = env.getImpl()->getNumberOfExtractables();
    QelInt uses = shared->getUseCount();
    size_t notices = rec->notices.size();
    EXPECT_EQ(qeltest::MessageOf<QelWrongUsage>(setter), refusal);
    QelNumExprI* copy = aggCost.getImpl()->getExpr();
    EXPECT_NE(copy, shared);
    EXPECT_EQ(copy->getUseCount(), 1);
    EXPECT_EQ(shared->getUseCount(), uses - 1);
    EXPECT_EQ(env.getImpl()->getNumberOfExtractables(), objects + 1);
    EXPECT_EQ(rec->notices.size(), notices);
    // Unshared now: refused in place, nothing more is copied.
    EXPECT_EQ(qeltest::MessageOf<QelWrongUsage>(setter), refusal);
    EXPECT_EQ(aggCost.getImpl()->getExpr(), copy);
    EXPECT_EQ(env.getImpl()->getNumberOfExtractables(), objects + 1);
  }
}
REFUSED(ObjectiveSetConstOfANonLinearExpression, QelWrongUsage,
        "QelTestIsLinear: expression is not linear", squareCost.setConst(1))
REFUSED(ObjectiveGetConstOfANonLinearExpression, QelWrongUsage,
        "QelTestIsLinear: expression is not linear", (void)squareCost.getConst())
REFUSED(ObjectiveAddVarOfNothing, QelEmptyHandleException, kEmpty,
        cost.getImpl()->addVar(nullptr, 1))
REFUSED(ObjectiveCriterionOutOfRange, QelWrongUsage, "QelObjectiveI: Criterion index out of range",
        (void)lex.getImpl()->getCriterion(2))
REFUSED(SeveralCriteriaGetExpr, QelNotAllowedWithMultiCriterionException, "QelObjective::getExpr",
        (void)lex.getExpr())
REFUSED(SeveralCriteriaExpressionConversion, QelNotAllowedWithMultiCriterionException,
        "QelObjective::getExpr", (void)static_cast<QelNumExprArg>(lex))
REFUSED(SeveralCriteriaSetConst, QelNotAllowedWithMultiCriterionException, "QelObjective::setConst",
        lex.setConst(1))
REFUSED(SeveralCriteriaSetExpr, QelNotAllowedWithMultiCriterionException, "QelObjective::setExpr",
        lex.setExpr(sum))
REFUSED(SeveralCriteriaSetCoef, QelNotAllowedWithMultiCriterionException, "QelObjective::setCoef",
        lex.setLinearCoef(x, 1))
REFUSED(SeveralCriteriaSetCoefs, QelNotAllowedWithMultiCriterionException, "QelObjective::setCoef",
        lex.setLinearCoefs(yz, twoCoefs))
REFUSED(SeveralCriteriaSetQuadCoef, QelNotAllowedWithMultiCriterionException,
        "QelObjective::setCoef", lex.setQuadCoef(x, y, 1))
REFUSED(SeveralCriteriaAddVar, QelNotAllowedWithMultiCriterionException, "QelObjective::addVar",
        lex.getImpl()->addVar(f.getImpl(), 1))
REFUSED(SeveralCriteriaLinearIterator, QelNotAllowedWithMultiCriterionException,
        "QelObjective::getExpr", (void)lex.getLinearIterator())
REFUSED(ObjectiveBecomingActiveWithoutEngine, QelAlgorithm::ExtractFailure, nullptr,
        (void)cost.getImpl()->whenAddedToCP(values, nullptr))
REFUSED(ObjectiveNoLongerActiveWithoutEngine, QelAlgorithm::ExtractFailure, nullptr,
        (void)cost.getImpl()->whenRemovedFromCP(values, nullptr))
REFUSED(MaximizeInEmptyEnvironment, QelWrongUsage, "Using empty handle",
        (void)QelMaximize(none, criteria))
REFUSED(MaximizeOfEmptyCriteria, QelWrongUsage, "Using empty handle",
        (void)QelMaximize(env, QelMultiCriterionExpr()))
REFUSED(MinimizeOfNoCriterion, QelWrongUsage, "Array of criteria has size 0",
        (void)QelMinimize(env, noCriteria))
REFUSED(MinimizeOfCriteriaWithoutArray, QelWrongUsage, kNoArray, (void)QelMinimize(env, noArray))
REFUSED(CriteriaInEmptyEnvironment, QelWrongUsage, kEmptyEnv,
        QelMultiCriterionExpr mc(none, yz, QelMultiCriterionExprI::StaticLex))
REFUSED(StaticLexInEmptyEnvironment, QelWrongUsage, kEmptyEnv, (void)QelStaticLex(none, x))
REFUSED(StaticLexOfArrayInEmptyEnvironment, QelWrongUsage, kEmptyEnv, (void)QelStaticLex(none, yz))
REFUSED(DynamicLexInEmptyEnvironment, QelWrongUsage, kEmptyEnv, (void)QelDynamicLex(none, yz))
REFUSED(PrintingEmptyCriteria, QelWrongUsage, "QelMultiCriterionExpr: using empty handle",
        std::ostringstream os;
        os << QelMultiCriterionExpr())
REFUSED(CountOfCriteriaWithoutArray, QelWrongUsage, kNoArray, (void)noArray->getNumCriteria())
REFUSED(CriterionWithoutArray, QelWrongUsage, kNoArray, (void)noArray->getCriterion(0))

// ---- engine hooks ----------------------------------------------------------------------

REFUSED(ExtractionWithoutEngine, QelAlgorithm::ExtractFailure, nullptr,
        (void)diff.getImpl()->extractToCP(values))
REFUSED(ModificationWithoutEngine, QelAlgorithm::RemoveFailure, nullptr,
        (void)pack.getImpl()->modifyCP(values, nullptr))
REFUSED(UnextractionWithoutEngine, QelAlgorithm::RemoveFailure, nullptr,
        (void)sos1.getImpl()->unextractFromCP(values, nullptr))
REFUSED(NoticeWithoutEngine, QelAlgorithm::CannotChangeException,
        "QelAlgorithm: no engine hook to follow this change",
        (void)QelSetNameChange(x.getImpl()).applyToCP(values, nullptr))

TEST_F(BadInput, HookModeListenerWithoutEngineFindsTheChangeMade) {
  // Not a refusal of the operation: the change is made first, then told;
  // the algorithm that cannot follow it throws from the telling.
  QelAlgorithm engine(env);
  engine.extract(model);
  engine.getImpl()->useHooks();
  EXPECT_EQ(MessageOf<QelAlgorithm::CannotChangeException>([&] { model.remove(diff); }),
            "QelAlgorithm: no engine hook to follow this change");
  EXPECT_FALSE(model.getImpl()->holds(diff.getImpl()));
  engine.end();
}
