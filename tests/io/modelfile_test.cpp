// Model files: round trips in both formats, names, refusals, reading rules,
// the exact message of every kind of bad input, memory after failures, and
// the files checked by the cbc and glpsol programs where they are found.
#include <qel/io/filemodel.h>
#include <qel/io/modelfile.h>

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <initializer_list>
#include <map>
#include <sstream>
#include <string>

#include "support/qeltest.h"
#include "support/refusing.h"

namespace {

using qeltest::BytesInUse;

std::string Name(const QelExtractableI* x) { return x->getName() != nullptr ? x->getName() : "?"; }

std::string Num(double v) {
  std::string s;
  QelAppendNumber(s, v);
  return s;
}

// A bound, infinite ones brought to 1e20.
std::string Bound(double v) { return Num(QelFileBound(v)); }

const char* TypeName(QelVarType t) {
  return t == QelVarType::Float ? "float" : t == QelVarType::Int ? "int" : "bool";
}

// A canonical text of a model: variables, rows, objective and sets by name,
// terms sorted by variable name, bounds with infinities brought to 1e20.
std::string Canonical(const QelModel& model) {
  std::map<std::string, std::string> vars;
  std::map<std::string, std::string> rows;
  std::map<std::string, std::string> sets;
  std::string objective;
  auto var = [&](QelNumVarI* v) {
    vars[Name(v)] = std::string(TypeName(v->getType())) + " [" + Bound(v->getLB()) + ", " +
                    Bound(v->getUB()) + "]";
    return Name(v);
  };
  auto linear = [&](QelNumExprI* e, std::string& out) {
    std::multimap<std::string, std::string> terms;
    std::multimap<std::string, std::string> quad;
    double constant = 0;
    if (auto* v = QelDynamicCast<QelNumVarI>(e)) {
      terms.emplace(var(v), "1");
    } else if (auto* t = QelDynamicCast<QelNumLinTermI>(e)) {
      const QelLinearParts& p = t->getParts();
      constant = p.constant;
      for (auto* n = p.head; n != nullptr; n = n->next)
        if (n->coef != 0) terms.emplace(var(n->var), Num(n->coef));
      for (auto* q = p.quadHead; q != nullptr; q = q->next)
        quad.emplace(var(q->var1) + "*" + var(q->var2), Num(q->coef));
    } else if (auto* t = QelDynamicCast<QelIntLinTermI>(e)) {
      const QelLinearParts& p = t->getParts();
      constant = p.constant;
      for (auto* n = p.head; n != nullptr; n = n->next)
        if (n->coef != 0) terms.emplace(var(n->var), Num(n->coef));
    }
    out += " const " + Num(constant) + " terms";
    for (auto& t : terms) out += " " + t.second + " " + t.first;
    if (!quad.empty()) out += " quad";
    for (auto& t : quad) out += " " + t.second + " " + t.first;
  };
  for (QelModel::Iterator it(model); it.ok(); ++it) {
    QelExtractableI* x = (*it).getImpl();
    if (auto* r = QelDynamicCast<QelRangeI>(x)) {
      std::string s = "[" + Bound(r->getLB()) + ", " + Bound(r->getUB()) + "]";
      linear(r->getExpr(), s);
      rows[Name(r)] = s;
    } else if (auto* o = QelDynamicCast<QelObjectiveI>(x)) {
      objective = Name(o) + (o->getSense() == QelObjective::Maximize ? " max" : " min");
      linear(o->getExpr(), objective);
    } else if (auto* s1 = QelDynamicCast<QelSOS1I>(x)) {
      std::string s = "sos1";
      for (long i = 0; i < s1->getVarArray().getSize(); ++i)
        s += " " + var(s1->getVarArray()[i].getImpl()) + ":" + Num(s1->getValArray()[i]);
      sets[Name(s1)] = s;
    } else if (auto* s2 = QelDynamicCast<QelSOS2I>(x)) {
      std::string s = "sos2";
      for (long i = 0; i < s2->getVarArray().getSize(); ++i)
        s += " " + var(s2->getVarArray()[i].getImpl()) + ":" + Num(s2->getValArray()[i]);
      sets[Name(s2)] = s;
    } else if (auto* v = QelDynamicCast<QelNumVarI>(x)) {
      var(v);
    }
  }
  std::string out = "objective " + objective + "\n";
  for (auto& v : vars) out += "var " + v.first + " " + v.second + "\n";
  for (auto& r : rows) out += "row " + r.first + " " + r.second + "\n";
  for (auto& s : sets) out += "set " + s.first + " " + s.second + "\n";
  return out;
}

std::string Write(const QelModel& m, QelFileFormat f) {
  std::ostringstream os;
  QelWriteModel(m, os, f);
  return os.str();
}

QelModel Read(QelEnv env, const std::string& text, QelFileFormat f, const std::string& name = "t") {
  std::istringstream in(text);
  return QelReadModel(env, in, f, name);
}

// A model with every feature a file holds.
QelModel EveryFeature(QelEnv env) {
  QelNumVar x(env, 0, 4.5, "x");
  QelNumVar y(env, -QelFileInfinity, QelFileInfinity, "y");
  QelNumVar z(env, -3, QelFileInfinity, "z");
  QelNumVar neg(env, -QelFileInfinity, -2, "neg");
  QelNumVar zeroNeg(env, 0, -1, "zeroNeg");
  QelNumVar fixed(env, 2.25, 2.25, "fixed");
  QelIntVar i(env, -5, 7, "i");
  QelNumVar j(env, 0, QelFileInfinity, QelVarType::Int, "j");
  QelNumVar k(env, -QelFileInfinity, 3, QelVarType::Int, "k");
  QelBoolVar b(env, "b");
  QelNumVar b1(env, 1, 1, QelVarType::Bool, "b1");
  QelNumVar lonely(env, 1, 2, "lonely");
  QelModel m(env, "every");
  m.add(QelObjective(env, 3 * x - 0.1 * y + 2 * i + x * x + 0.5 * x * y + 7.25,
                     QelObjective::Maximize, "profit"));
  m.add(QelRange(env, -QelFileInfinity, x + y + z, 10, "le"));
  m.add(QelRange(env, 1, 2 * z - i + j, QelFileInfinity, "ge"));
  m.add(QelRange(env, 3, x + k, 3, "eq"));
  m.add(QelRange(env, 0.1, x + 0.3 * neg, 0.3, "ranged"));
  m.add(QelRange(env, -1e-7, 1e-300 * y + 1e300 * z, 12345.678901234567, "wide"));
  m.add(QelRange(env, -QelFileInfinity, x + b + b1 + zeroNeg + fixed, QelFileInfinity, "open"));
  QelSOS1 s1(env, "set1");
  s1.getImpl()->addVar(x);
  s1.getImpl()->addVal(1);
  s1.getImpl()->addVar(z);
  s1.getImpl()->addVal(2.5);
  QelSOS2 s2(env, "set2");
  for (int t = 0; t < 3; ++t) {
    s2.getImpl()->addVar(t == 0 ? j : t == 1 ? k : QelNumVar(i.getImpl()));
    s2.getImpl()->addVal(10 + t);
  }
  m.add(s1);
  m.add(s2);
  m.add(lonely);
  return m;
}

class ModelFiles : public ::testing::TestWithParam<QelFileFormat> {};

TEST_P(ModelFiles, RoundTripKeepsEverything) {
  QelEnv env;
  QelModel m = EveryFeature(env);
  std::string text = Write(m, GetParam());
  QelModel back = Read(env, text, GetParam());
  EXPECT_EQ(Canonical(back), Canonical(m)) << text;
  EXPECT_STREQ(back.getImpl()->getName(), "every");
  // Written again, the model read gives the same text.
  EXPECT_EQ(Write(back, GetParam()), text);
  QelEndReadModel(back);
  env.end();
}

TEST_P(ModelFiles, FailedReadLeavesMemoryAsItWas) {
  QelEnv env;
  QelModel m = EveryFeature(env);
  std::string text = Write(m, GetParam());
  QelInt before = BytesInUse(env);
  // Cut the file in the middle: the read fails and makes nothing.
  EXPECT_THROW(Read(env, text.substr(0, text.size() / 2) + "\n?? ??\n", GetParam()), QelException);
  EXPECT_EQ(BytesInUse(env), before);
  // A good read, ended again, gives everything back too.
  QelEndReadModel(Read(env, text, GetParam()));
  EXPECT_EQ(BytesInUse(env), before);
  env.end();
}

TEST_P(ModelFiles, RefusedMemoryWhileBuildingEndsEverything) {
  QelFileFormat format = GetParam();
  std::string text;
  {
    QelEnv env;
    text = Write(EveryFeature(env), format);
    env.end();
  }
  long refusals =
      qeltest::ForEachRefusal([&](QelEnv env, qeltest::RequestCounter& counter, long n) {
        QelInt before = BytesInUse(env);
        counter.refuseAfter(n);
        bool refused = false;
        try {
          QelModel m = Read(env, text, format);
          counter.stop();
          QelEndReadModel(m);
        } catch (const QelMemoryException&) {
          refused = true;
        }
        counter.stop();
        EXPECT_EQ(BytesInUse(env), before);
        return refused;
      });
  EXPECT_GT(refusals, 20);
}

TEST_P(ModelFiles, NamesAreMadeValidAndUnique) {
  QelEnv env;
  QelNumVar a(env, 0, 1, "my var");
  QelNumVar b(env, 0, 1, "my_var");
  QelNumVar c(env, 0, 1);
  QelNumVar d(env, 0, 1, "end");
  QelModel m(env);
  QelRange r(env, 0, a + b + c + d, 1);
  m.add(QelObjective(env, a + b + c + d, QelObjective::Minimize));
  m.add(r);
  std::string text = Write(m, GetParam());
  QelModel back = Read(env, text, GetParam());
  std::vector<std::string> names;
  for (QelModel::Iterator it(back); it.ok(); ++it)
    if (auto* o = QelDynamicCast<QelObjectiveI>((*it).getImpl()))
      for (auto* n = QelDynamicCast<QelNumLinTermI>(o->getExpr())->getParts().head; n != nullptr;
           n = n->next)
        names.push_back(Name(n->var));
  std::string cName = "x" + std::to_string(c.getImpl()->getId());
  std::string dName = GetParam() == QelFileFormat::Lp ? "_end" : "end";
  EXPECT_EQ(names, (std::vector<std::string>{"my_var", "my_var_2", cName, dName}));
  EXPECT_NE(text.find("r" + std::to_string(r.getImpl()->getId())), std::string::npos);
  env.end();
}

TEST_P(ModelFiles, WhatTheFormatCannotHoldIsRefusedByName) {
  QelEnv env;
  QelIntVar x(env, 0, 3, "x"), y(env, 0, 3, "y");
  QelModel m(env, "m");
  m.add(QelRange(env, 0, x + y, 4, "c"));
  QelAllDiff all(env, QelIntVarArray(env, 2, x, y), "alld");
  m.add(all);
  const char* format = GetParam() == QelFileFormat::Lp ? "LP" : "MPS";
  const char* ext = GetParam() == QelFileFormat::Lp ? "refused.lp" : "refused.mps";
  std::remove(ext);
  try {
    QelWriteModel(m, ext);
    FAIL() << "no exception";
  } catch (const QelException& e) {
    EXPECT_EQ(std::string(e.getMessage()),
              std::string("cannot write \"alld\" (QelAllDiffI) in the ") + format +
                  " format: no QelAllDiffI in the format");
  }
  EXPECT_FALSE(std::ifstream(ext).good());
  // Asked to, the writer leaves it out and says so.
  QelWriteOptions options;
  options.skipUnsupported = true;
  QelWriteModel(m, ext, QelFileFormat::Auto, &options);
  EXPECT_EQ(options.leftOut,
            std::vector<std::string>{"\"alld\" (QelAllDiffI): no QelAllDiffI in the format"});
  QelModel back = QelReadModel(env, ext);
  EXPECT_NE(Canonical(back).find("row c [0, 4] const 0 terms 1 x 1 y"), std::string::npos);
  std::remove(ext);

  // Quadratic rows, products, several criteria.
  QelModel q(env);
  q.add(QelRange(env, 0, x * y, 4, "quadrow"));
  EXPECT_THROW(Write(q, GetParam()), QelException);
  try {
    Write(q, GetParam());
  } catch (const QelException& e) {
    EXPECT_EQ(std::string(e.getMessage()),
              std::string("cannot write \"quadrow\" (QelRangeI) in the ") + format +
                  " format: a quadratic term in a constraint");
  }
  QelModel lex(env);
  lex.add(QelMinimize(env, QelStaticLex(env, x, y), "lexobj"));
  try {
    Write(lex, GetParam());
    FAIL() << "no exception";
  } catch (const QelException& e) {
    EXPECT_EQ(std::string(e.getMessage()),
              std::string("cannot write \"lexobj\" (QelObjectiveI) in the ") + format +
                  " format: a lexicographic objective with 2 criteria");
  }
  QelModel two(env);
  two.add(QelObjective(env, x, QelObjective::Minimize, "o1"));
  two.add(QelObjective(env, y, QelObjective::Minimize, "o2"));
  try {
    Write(two, GetParam());
    FAIL() << "no exception";
  } catch (const QelException& e) {
    EXPECT_EQ(std::string(e.getMessage()),
              std::string("cannot write \"o2\" (QelObjectiveI) in the ") + format +
                  " format: a second objective (the format holds one)");
  }
  env.end();
}

TEST_P(ModelFiles, ColumnsInNoTermGoLastAndStayThere) {
  // A free-standing variable added first and one whose terms cancel are
  // written after the others, where a reader puts them: written again, the
  // model read gives the same text (found by the LP reader fuzzer).
  QelEnv env;
  QelNumVar lone(env, 0, 1, "lone"), x(env, 0, 1, "x"), y(env, 0, 1, "y");
  QelModel m(env, "order");
  m.add(lone);
  m.add(QelObjective(env, x, QelObjective::Minimize, "obj"));
  m.add(QelRange(env, 0, x + y - y, 1, "c"));
  std::string text = Write(m, GetParam());
  QelModel back = Read(env, text, GetParam());
  EXPECT_EQ(Write(back, GetParam()), text);
  EXPECT_LT(text.find("x"), text.find("lone"));
  EXPECT_LT(text.find("lone"), text.find(" y"));
  env.end();
}

TEST_P(ModelFiles, RowsWithoutAnyColumn) {
  // No column at all: the LP form of an empty row is "0 <= 1" (found by
  // the MPS reader fuzzer).
  QelEnv env;
  QelModel m(env, "empty");
  m.add(QelRange(env, -QelFileInfinity, QelNumExpr(env, 0.0), 1, "nothing"));
  std::string text = Write(m, GetParam());
  QelModel back = Read(env, text, GetParam());
  EXPECT_EQ(Canonical(back),
            "objective obj min const 0 terms\nrow nothing [-1e+20, 1] const 0 terms\n");
  EXPECT_EQ(Write(back, GetParam()), text);
  env.end();
}

INSTANTIATE_TEST_SUITE_P(Formats, ModelFiles,
                         ::testing::Values(QelFileFormat::Mps, QelFileFormat::Lp),
                         [](const ::testing::TestParamInfo<QelFileFormat>& info) {
                           return info.param == QelFileFormat::Lp ? "Lp" : "Mps";
                         });

// ---- reading rules ----------------------------------------------------------

TEST(MpsReading, CommonRules) {
  QelEnv env;
  const char* text =
      "* a comment\n"
      "NAME rules\n"
      "OBJSENSE MAX\n"
      "ROWS\n"
      " N  cost\n"
      " N  other\n"
      " E  e1\n"
      " E  e2\n"
      " L  l1\n"
      " G  g1\n"
      "COLUMNS\n"
      "    MARKER  'MARKER'  'INTORG'\n"
      "    i  cost  1  e1  1\n"
      "    i  other 5\n"
      "    n  e2    1\n"
      "    MARKER  'MARKER'  'INTEND'\n"
      "    x  l1    1  g1  1\n"
      "    x  e2    2\n"
      "RHS\n"
      "    RHS  cost  -4  e1  2\n"
      "    e2  3  l1  5\n"
      "    g1  1\n"
      "RANGES\n"
      "    RNG  e1  4  e2  -4\n"
      "    RNG  l1  2  g1  -3\n"
      "BOUNDS\n"
      " UP BND n  -2\n"
      " MI BND x\n"
      " UP BND x  -1\n"
      "ENDATA\n";
  QelModel m = Read(env, text, QelFileFormat::Mps);
  EXPECT_EQ(Canonical(m),
            "objective cost max const 4 terms 1 i\n"
            "var i int [0, 1e+20]\n"
            "var n int [-1e+20, -2]\n"
            "var x float [-1e+20, -1]\n"
            "row e1 [2, 6] const 0 terms 1 i\n"
            "row e2 [-1, 3] const 0 terms 1 n 2 x\n"
            "row g1 [1, 4] const 0 terms 1 x\n"
            "row l1 [3, 5] const 0 terms 1 x\n");
  env.end();
}

TEST(MpsReading, ObjSenseSectionBvAndFixedFields) {
  QelEnv env;
  // Fixed fields: names with spaces, no RHS set name.
  auto line = [](std::initializer_list<const char*> fields) {
    static const size_t at[] = {1, 4, 14, 24, 39, 49};
    std::string l;
    size_t k = 0;
    for (const char* f : fields) {
      l.resize(at[k++], ' ');
      l += f;
    }
    return l + "\n";
  };
  std::string text =
      "NAME          fixed\nOBJSENSE\n    MAXIMIZE\nROWS\n" + line({"N", "obj"}) +
      line({"L", "row one"}) + "COLUMNS\n" + line({"", "col a", "obj", "1.5", "row one", "1"}) +
      line({"", "col b", "row one", "2"}) + "RHS\n" + line({"", "", "row one", "8"}) + "BOUNDS\n" +
      line({"BV", "BND", "col b"}) + line({"UI", "BND", "col a", "3"}) + "ENDATA\n";
  QelModel m = Read(env, text, QelFileFormat::FixedMps);
  EXPECT_EQ(Canonical(m),
            "objective obj max const 0 terms 1.5 col a\n"
            "var col a int [0, 3]\n"
            "var col b bool [0, 1]\n"
            "row row one [-1e+20, 8] const 0 terms 1 col a 2 col b\n");
  env.end();
}

TEST(LpReading, SectionsCommentsAndContinuedLines) {
  QelEnv env;
  const char* text =
      "\\ a comment line\n"
      "maximize\n"
      " value: 3 x + 2 y \\ comment after terms\n"
      "   - z + 4\n"
      "subject to\n"
      " c1: x + y\n"
      "     + z <= 10\n"
      " -2 <= x - y <= 2\n"
      " 3 >= z\n"
      "such that\n"
      " c4: x >= -Infinity\n"
      "bounds\n"
      " x <= 4\n"
      " -inf <= y <= 5\n"
      " w free\n"
      "general\n"
      " y\n"
      "binary\n"
      " z\n"
      "sos\n"
      " s: S2:: x:1 y:2 w:3\n"
      "end\n";
  QelModel m = Read(env, text, QelFileFormat::Lp);
  EXPECT_EQ(Canonical(m),
            "objective value max const 4 terms 3 x 2 y -1 z\n"
            "var w float [-1e+20, 1e+20]\n"
            "var x float [0, 4]\n"
            "var y int [-1e+20, 5]\n"
            "var z bool [0, 1]\n"
            "row R2 [-2, 2] const 0 terms 1 x -1 y\n"
            "row R3 [-1e+20, 3] const 0 terms 1 z\n"
            "row c1 [-1e+20, 10] const 0 terms 1 x 1 y 1 z\n"
            "row c4 [-1e+20, 1e+20] const 0 terms 1 x\n"
            "set s sos2 x:1 y:2 w:3\n");
  env.end();
}

TEST(MpsReading, EveryBoundType) {
  QelEnv env;
  std::string text =
      "NAME\nROWS\n N obj\nCOLUMNS\n"
      "    up obj 1\n    lo obj 1\n    fx obj 1\n    fr obj 1\n    mi obj 1\n"
      "    pl obj 1\n    bv obj 1\n    li obj 1\n    ui obj 1\n    lomi obj 1\n"
      "RHS\nBOUNDS\n"
      " UP BND up 4\n LO BND lo -2.5\n FX BND fx 7\n FR BND fr\n MI BND mi\n"
      " UP BND pl 3\n PL BND pl\n BV BND bv\n LI BND li -4\n UI BND ui 9\n"
      " LO BND lomi 1\n UP BND lomi -3\n"
      "ENDATA\n";
  QelModel m = Read(env, text, QelFileFormat::Mps);
  std::string c = Canonical(m);
  for (const char* line :
       {"var up float [0, 4]", "var lo float [-2.5, 1e+20]", "var fx float [7, 7]",
        "var fr float [-1e+20, 1e+20]", "var mi float [-1e+20, 1e+20]", "var pl float [0, 1e+20]",
        "var bv bool [0, 1]", "var li int [-4, 1e+20]", "var ui int [0, 9]",
        // An explicit lower bound is kept under a negative UP.
        "var lomi float [1, -3]"})
    EXPECT_NE(c.find(std::string(line) + "\n"), std::string::npos) << line << "\n" << c;
  env.end();
}

TEST(LpReading, KeywordVariants) {
  QelEnv env;
  const char* text =
      "MINIMUM\n obj: a + b + c\nST\n c1: a + b >= 1\nSUBJECT TO\n c2: b + c >= 1\n"
      "BOUND\n a <= INF\nINTEGERS\n a\nGENERALS\n b\nBINARIES\n c\nEND\n";
  QelModel m = Read(env, text, QelFileFormat::Lp);
  EXPECT_EQ(Canonical(m),
            "objective obj min const 0 terms 1 a 1 b 1 c\n"
            "var a int [0, 1e+20]\n"
            "var b int [0, 1e+20]\n"
            "var c bool [0, 1]\n"
            "row c1 [1, 1e+20] const 0 terms 1 a 1 b\n"
            "row c2 [1, 1e+20] const 0 terms 1 b 1 c\n");
  env.end();
}

TEST(LpReading, ZeroCoefficientsStillMakeAVariableSide) {
  // "0 x >= 0" has a variable on the left even though no term is kept (an
  // MPS row with no nonzeros is written so); found by the MPS fuzzer.
  QelEnv env;
  QelModel m = Read(env, "min\n obj: x\nst\n c: 0 x >= 2\n d: 3 <= 0 x\nend\n", QelFileFormat::Lp);
  EXPECT_EQ(Canonical(m),
            "objective obj min const 0 terms 1 x\n"
            "var x float [0, 1e+20]\n"
            "row c [2, 1e+20] const 0 terms\n"
            "row d [3, 1e+20] const 0 terms\n");
  env.end();
}

TEST(ModelFileErrors, MissingFileAndUnknownExtension) {
  QelEnv env;
  try {
    QelReadModel(env, "/nonexistent/dir/model.mps");
    FAIL() << "no exception";
  } catch (const QelException& e) {
    EXPECT_STREQ(e.getMessage(), "cannot open \"/nonexistent/dir/model.mps\"");
  }
  try {
    QelReadModel(env, "model.txt");
    FAIL() << "no exception";
  } catch (const QelException& e) {
    EXPECT_STREQ(e.getMessage(), "cannot tell the format of \"model.txt\" (use .mps or .lp)");
  }
  env.end();
}

struct BadInput {
  QelFileFormat format;
  const char* text;
  const char* message;
};

const char* const MpsHead = "NAME m\nROWS\n N obj\n L c\nCOLUMNS\n    x obj 1 c 1\n";

std::string Mps(const char* tail) { return std::string(MpsHead) + tail; }

TEST(ModelFileErrors, EveryMalformedInputHasItsMessage) {
  const std::string mps[][2] = {
      {"NAME m\n    x\n",
       "bad.mps:2: expected a section (NAME, ROWS, COLUMNS, RHS, RANGES, BOUNDS, SOS, QUADOBJ, "
       "ENDATA), found \"x\""},
      {"NAME m\nFOO\n",
       "bad.mps:2: expected a section (NAME, ROWS, COLUMNS, RHS, RANGES, BOUNDS, SOS, QUADOBJ, "
       "ENDATA), found \"FOO\""},
      {"NAME m\nOBJSENSE\n    UP\n", "bad.mps:3: expected MIN or MAX, found \"UP\""},
      {"NAME m\nROWS\n X c\n", "bad.mps:3: expected a row type (N, L, G, E), found \"X\""},
      {"NAME m\nROWS\n L\n", "bad.mps:3: expected a row name, found end of line"},
      {"NAME m\nROWS\n L c d\n", "bad.mps:3: expected end of line, found \"d\""},
      {"NAME m\nROWS\n L c\n G c\n", "bad.mps:4: row \"c\" defined twice"},
      {"NAME m\nROWS\n L c\nCOLUMNS\n    x\n", "bad.mps:5: expected a row name, found end of line"},
      {"NAME m\nROWS\n L c\nCOLUMNS\n    x d 1\n", "bad.mps:5: unknown row \"d\""},
      {"NAME m\nROWS\n L c\nCOLUMNS\n    x c\n", "bad.mps:5: expected a number, found end of line"},
      {"NAME m\nROWS\n L c\nCOLUMNS\n    x c 1..2\n",
       "bad.mps:5: expected a number, found \"1..2\""},
      {"NAME m\nROWS\n L c\nCOLUMNS\n    m 'MARKER' 'INTBEG'\n",
       "bad.mps:5: expected 'INTORG' or 'INTEND', found \"'INTBEG'\""},
      {"RHS\n    c\n", "bad.mps:8: expected a row name and a number, found end of line"},
      {"RHS\n    RHS c x\n", "bad.mps:8: expected a number, found \"x\""},
      {"RANGES\n    RNG obj 1\n", "bad.mps:8: a range on the objective row \"obj\""},
      {"BOUNDS\n XX BND x 1\n",
       "bad.mps:8: expected a bound type (UP, LO, FX, FR, MI, PL, BV, LI, UI), found \"XX\""},
      {"BOUNDS\n UP BND y 1\n", "bad.mps:8: unknown column \"y\""},
      {"BOUNDS\n UP x\n", "bad.mps:8: expected a number, found end of line"},
      {"BOUNDS\n UP BND x 1 2\n", "bad.mps:8: expected end of line, found \"2\""},
      {"BOUNDS\n FR\n", "bad.mps:8: expected a column name, found end of line"},
      {"SOS\n    x 1\n",
       "bad.mps:8: expected a set header (S1 or S2, SOS and a name), found \"x\""},
      {"SOS\n S1 SOS s 1\n    q 1\n", "bad.mps:9: unknown column \"q\""},
      {"SOS\n S1 SOS s 1\n    x\n", "bad.mps:9: expected a number, found end of line"},
      {"QUADOBJ\n    x x\n", "bad.mps:8: expected a number, found end of line"},
      {"QUADOBJ\n    x z 1\n", "bad.mps:8: unknown column \"z\""},
      {"", "bad.mps:6: expected ENDATA, found end of file"},
  };
  for (const auto& c : mps) {
    QelEnv env;
    QelInt before = BytesInUse(env);
    std::string text = c[0].rfind("NAME", 0) == 0 ? c[0] : Mps(c[0].c_str());
    try {
      Read(env, text, QelFileFormat::Mps, "bad.mps");
      ADD_FAILURE() << "no exception for\n" << text;
    } catch (const QelException& e) {
      EXPECT_EQ(std::string(e.getMessage()), c[1]) << text;
    }
    EXPECT_EQ(BytesInUse(env), before);
    env.end();
  }
  const std::string lp[][2] = {
      {"x + y\n", "bad.lp:1: expected Minimize or Maximize, found \"x\""},
      {"", "bad.lp:1: expected Minimize or Maximize, found end of file"},
      {"min\n obj: x +\nst\n", "bad.lp:3: expected a number or a variable, found \"st\""},
      {"min\n obj: x + * y\nend\n", "bad.lp:2: expected a number or a variable, found \"*\""},
      {"min\n x y\nend\n",
       "bad.lp:2: expected a section (Subject To, Bounds, General, Binary, SOS, End), found \"y\""},
      {"min\n x\nst\n c: x + y 3\nend\n",
       "bad.lp:4: expected \"<=\", \">=\" or \"=\", found \"3\""},
      {"min\n x\nst\n c: x + y <= z\nend\n", "bad.lp:4: expected a number, found \"z\""},
      {"min\n x\nst\n c: x <= 1\n c: y >= 2\nend\n", "bad.lp:5: row \"c\" defined twice"},
      {"min\n x\nst\n c: 1 <= x >= 3\nend\n",
       "bad.lp:4: a ranged constraint needs two \"<=\" or two \">=\""},
      {"min\n x\nst\n c: 1 <= 2 <= 3\nend\n", "bad.lp:4: expected a variable, found \"<=\""},
      {"min\n x\nst\n c: [ x ^ 2 ] <= 1\nend\n",
       "bad.lp:4: quadratic terms are only read in the objective"},
      {"min\n obj: [ x ^ 3 ] / 2\nend\n", "bad.lp:2: expected 2, found \"3\""},
      {"min\n obj: [ x y ] / 2\nend\n", "bad.lp:2: expected \"^\" or \"*\", found \"y\""},
      {"min\n obj: [ x * y ]\nend\n", "bad.lp:3: expected \"/\", found \"end\""},
      {"min\n obj: [ x * y  x ^ 2 ] / 2\nend\n",
       "bad.lp:2: expected \"+\", \"-\" or \"]\", found \"x\""},
      {"min\n x\nbounds\n x <= y\nend\n", "bad.lp:4: expected a number, found \"y\""},
      {"min\n x\nbounds\n x 3\nend\n",
       "bad.lp:4: expected \"<=\", \">=\", \"=\" or free, found \"3\""},
      {"min\n x\nbounds\n 3 x\nend\n", "bad.lp:4: expected \"<=\", \">=\" or \"=\", found \"x\""},
      {"min\n x\nbounds\n 3 <= 4\nend\n", "bad.lp:4: expected a variable, found \"4\""},
      {"min\n x\ngeneral\n x 3\nend\n", "bad.lp:4: expected a variable, found \"3\""},
      {"min\n x\nsos\n s: S3:: x:1\nend\n", "bad.lp:4: expected S1:: or S2::, found \"S3\""},
      {"min\n x\nsos\n s: S1:: x:1 y\nend\n",
       "bad.lp:4: expected a variable:weight pair, found \"y\""},
      {"min\n x\nsos\n s: S1:: x:y\nend\n", "bad.lp:4: expected S1:: or S2::, found \"y\""},
      {"min\n x\nsemi-continuous\n x\nend\n", "bad.lp:3: semi-continuous variables are not read"},
      {"min\n x\nst\n c: x <= 1 ]\nend\n",
       "bad.lp:4: expected a number or a variable, found \"]\""},
  };
  for (const auto& c : lp) {
    QelEnv env;
    QelInt before = BytesInUse(env);
    try {
      Read(env, c[0], QelFileFormat::Lp, "bad.lp");
      ADD_FAILURE() << "no exception for\n" << c[0];
    } catch (const QelException& e) {
      EXPECT_EQ(std::string(e.getMessage()), c[1]) << c[0];
    }
    EXPECT_EQ(BytesInUse(env), before);
    env.end();
  }
}

// ---- the files checked by other programs --------------------------------------

// A small MILP whose optimum is known: min -5a - 4b - 3c, 2a + 3b + c <= 5,
// 4a + b + 2c <= 11, 3a + 4b + 2c <= 8, 3a + 4b + 2c >= 1, a, b, c integers >= 0: a = 2,
// b = 0, c = 1, objective -13. (Minimized: the MPS readers of cbc and glpsol
// do not take OBJSENSE; no ranged row: glpsol's LP reader takes no
// "lb <= expression <= ub".)
QelModel Knapsack(QelEnv env) {
  QelIntVar a(env, 0, 100, "a"), b(env, 0, 100, "b"), c(env, 0, 100, "c");
  QelModel m(env, "knap");
  m.add(QelObjective(env, -5 * a - 4 * b - 3 * c, QelObjective::Minimize, "value"));
  m.add(QelRange(env, -QelFileInfinity, 2 * a + 3 * b + c, 5, "r1"));
  m.add(QelRange(env, -QelFileInfinity, 4 * a + b + 2 * c, 11, "r2"));
  m.add(QelRange(env, -QelFileInfinity, 3 * a + 4 * b + 2 * c, 8, "r3"));
  m.add(QelRange(env, 1, 3 * a + 4 * b + 2 * c, QelFileInfinity, "r4"));
  return m;
}

std::string RunCommand(const std::string& command) {
  std::string out;
  FILE* p = popen((command + " 2>&1").c_str(), "r");
  if (p == nullptr) return out;
  char buf[4096];
  size_t n;
  while ((n = fread(buf, 1, sizeof buf, p)) > 0) out.append(buf, n);
  pclose(p);
  return out;
}

bool Have(const char* program) {
  return std::system((std::string("command -v ") + program + " > /dev/null 2>&1").c_str()) == 0;
}

TEST(ModelFileCheckers, CbcSolvesWhatQelWrote) {
  if (!Have("cbc")) GTEST_SKIP() << "the cbc program was not found: files not checked with it";
  QelEnv env;
  QelModel m = Knapsack(env);
  for (const char* path : {"knap_cbc.mps", "knap_cbc.lp"}) {
    QelWriteModel(m, path);
    std::string out = RunCommand(std::string("cbc ") + path + " -solve -quit");
    EXPECT_NE(out.find("Optimal solution found"), std::string::npos) << out;
    EXPECT_NE(out.find("Objective value:                -13.00000000"), std::string::npos) << out;
    std::remove(path);
  }
  env.end();
}

TEST(ModelFileCheckers, GlpsolSolvesWhatQelWrote) {
  if (!Have("glpsol"))
    GTEST_SKIP() << "the glpsol program was not found: files not checked with it";
  QelEnv env;
  QelModel m = Knapsack(env);
  for (const char* path : {"knap_glp.mps", "knap_glp.lp"}) {
    QelWriteModel(m, path);
    std::string flag =
        std::string(path).find(".mps") != std::string::npos ? " --freemps " : " --lp ";
    std::string out = RunCommand("glpsol" + flag + path + " -o knap_glp.out");
    EXPECT_NE(out.find("INTEGER OPTIMAL SOLUTION FOUND"), std::string::npos) << out;
    std::ifstream report("knap_glp.out");
    std::string all((std::istreambuf_iterator<char>(report)), std::istreambuf_iterator<char>());
    EXPECT_NE(all.find("Objective:  value = -13 (MINimum)"), std::string::npos) << all;
    std::remove(path);
    std::remove("knap_glp.out");
  }
  env.end();
}

}  // namespace
