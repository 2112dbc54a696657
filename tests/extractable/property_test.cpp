// Named properties of extractables: the four families, lookup, typed get
// and set, removal, copying from another set, and memory.
#include "support/qeltest.h"

#include <cstring>
#include <string>
#include <vector>

namespace {

using qeltest::BytesInUse;
using qeltest::MessageOf;
using NotPresent = QelNamedPropertySet::NotPresent;
using BadType = QelNamedPropertySet::BadType;

class PropLeafI : public QelExtractableI {
  QEL_EXTRACTABLE_DECL(PropLeafI, QelExtractableI)

 public:
  explicit PropLeafI(QelEnvI* env) : QelExtractableI(env) {}
  void visitSubExtractables(QelExtractableVisitor* v) override {
    v->beginVisit(this);
    v->endVisit(this);
  }
};
QEL_EXTRACTABLE_DEF(PropLeafI)

PropLeafI* Leaf(QelEnv env) { return QelNewObject<PropLeafI>(env.getImpl(), env.getImpl()); }

std::vector<std::string> Names(const QelNamedPropertySetI* set) {
  std::vector<std::string> names;
  for (QelNamedPropertyI* p = set->getFirst(); p != nullptr; p = p->getNext())
    names.push_back(p->getName());
  return names;
}

// ---- the edge cases ------------------------------------------------------

TEST(Property, HasPropertyOnABareObjectIsFalseAndMakesNothing) {
  QelEnv env;
  PropLeafI* x = Leaf(env);
  QelInt bytes = BytesInUse(env);
  EXPECT_FALSE(x->hasProperty("w"));
  EXPECT_FALSE(x->hasProperty(nullptr));
  EXPECT_EQ(x->getExtension(), nullptr);
  EXPECT_EQ(x->getProperties(), nullptr);
  EXPECT_EQ(BytesInUse(env), bytes);
  // With an extension but no set: still false, still no set.
  x->setLocation("p.cpp", 1);
  EXPECT_FALSE(x->hasProperty("w"));
  EXPECT_EQ(x->getProperties(), nullptr);
  x->end();
  env.end();
}

TEST(Property, GetPropertyOfAMissingNameThrowsNotPresentWithTheName) {
  QelEnv env;
  PropLeafI* x = Leaf(env);
  EXPECT_EQ(MessageOf<NotPresent>([&] { x->getProperty("w"); }), "w");
  EXPECT_EQ(x->getExtension(), nullptr);
  EXPECT_EQ(MessageOf<NotPresent>([&] { x->getIntProperty("weight"); }), "weight");
  EXPECT_EQ(MessageOf<NotPresent>([&] { x->getNumProperty("n"); }), "n");
  EXPECT_EQ(MessageOf<NotPresent>([&] { x->getStringProperty("s"); }), "s");
  EXPECT_EQ(MessageOf<NotPresent>([&] { x->getAnyProperty("a"); }), "a");
  EXPECT_EQ(x->getExtension(), nullptr);
  // With a set holding other names.
  x->setIntProperty("other", 1);
  EXPECT_EQ(MessageOf<NotPresent>([&] { x->getProperty("w"); }), "w");
  EXPECT_EQ(MessageOf<NotPresent>([&] { x->getIntProperty("w"); }), "w");
  x->end();
  env.end();
}

TEST(Property, SetIntPropertyCreatesThenChangesInPlaceAndRefusesAnotherFamily) {
  QelEnv env;
  PropLeafI* x = Leaf(env);
  x->setIntProperty("w", 3);
  ASSERT_NE(x->getExtension(), nullptr);
  ASSERT_NE(x->getProperties(), nullptr);
  EXPECT_TRUE(x->hasProperty("w"));
  EXPECT_EQ(x->getIntProperty("w"), 3);
  QelNamedPropertyI* p = x->getProperty("w");
  EXPECT_TRUE(p->isType(QelNamedIntPropertyI::GetTypeInfo()));
  EXPECT_STREQ(p->getName(), "w");

  x->setIntProperty("w", 4);
  EXPECT_EQ(x->getIntProperty("w"), 4);
  EXPECT_EQ(x->getProperty("w"), p);  // the same property, changed in place
  EXPECT_EQ(x->getProperties()->getSize(), 1);

  EXPECT_EQ(MessageOf<BadType>([&] { x->setNumProperty("w", 1.5); }), "w");
  EXPECT_EQ(x->getIntProperty("w"), 4);
  EXPECT_EQ(x->getProperty("w"), p);
  EXPECT_EQ(MessageOf<BadType>([&] { x->setStringProperty("w", "s"); }), "w");
  EXPECT_EQ(MessageOf<BadType>([&] { x->setAnyProperty("w", nullptr); }), "w");
  EXPECT_EQ(MessageOf<BadType>([&] { x->getNumProperty("w"); }), "w");
  EXPECT_EQ(MessageOf<BadType>([&] { x->getStringProperty("w"); }), "w");
  EXPECT_EQ(MessageOf<BadType>([&] { x->getAnyProperty("w"); }), "w");
  EXPECT_EQ(x->getProperties()->getSize(), 1);
  x->end();
  env.end();
}

TEST(Property, RemoveAllPropertiesLeavesNone) {
  QelEnv env;
  PropLeafI* x = Leaf(env);
  QelInt bare = BytesInUse(env);
  x->setIntProperty("a", 1);
  x->setNumProperty("b", 2.0);
  x->setStringProperty("c", "three");
  QelExtension* ext = x->getExtension();
  x->removeAllProperties();
  EXPECT_FALSE(x->hasProperty("a"));
  EXPECT_FALSE(x->hasProperty("b"));
  EXPECT_FALSE(x->hasProperty("c"));
  EXPECT_EQ(x->getProperties(), nullptr);
  EXPECT_EQ(x->getExtension(), ext);  // the record stays
  // Everything but the record went back.
  QelInt record = static_cast<QelInt>(
      QelMemory::BlockSizeOfClass(env.getImpl()->getMemory()->getIndex(sizeof(QelExtension))));
  EXPECT_EQ(BytesInUse(env), bare + record);
  // Again, and on a bare object: nothing happens, nothing is made.
  x->removeAllProperties();
  PropLeafI* bareObject = Leaf(env);
  bareObject->removeAllProperties();
  EXPECT_EQ(bareObject->getExtension(), nullptr);
  // Properties can be added again afterwards.
  x->setIntProperty("a", 5);
  EXPECT_EQ(x->getIntProperty("a"), 5);
  x->end();
  bareObject->end();
  env.end();
}

TEST(Property, AddPropertiesOfNullDoesNothing) {
  QelEnv env;
  PropLeafI* x = Leaf(env);
  QelInt bytes = BytesInUse(env);
  x->addProperties(nullptr);
  EXPECT_EQ(x->getExtension(), nullptr);
  EXPECT_EQ(BytesInUse(env), bytes);
  x->setIntProperty("kept", 1);
  x->addProperties(nullptr);
  EXPECT_EQ(x->getProperties()->getSize(), 1);
  x->end();
  env.end();
}

// ---- the four families ------------------------------------------------------

TEST(Property, FourFamilies) {
  QelEnv env;
  PropLeafI* x = Leaf(env);
  int target = 0;
  x->setStringProperty("label", "capacity row");
  x->setAnyProperty("user", &target);
  x->setNumProperty("ratio", 0.75);
  x->setIntProperty("priority", -(QelInt(1) << 40));
  EXPECT_STREQ(x->getStringProperty("label"), "capacity row");
  EXPECT_EQ(x->getAnyProperty("user"), &target);
  EXPECT_EQ(x->getNumProperty("ratio"), 0.75);
  EXPECT_EQ(x->getIntProperty("priority"), -(QelInt(1) << 40));
  EXPECT_TRUE(x->getProperty("label")->isType(QelNamedStringPropertyI::GetTypeInfo()));
  EXPECT_TRUE(x->getProperty("user")->isType(QelNamedAnyPropertyI::GetTypeInfo()));
  EXPECT_TRUE(x->getProperty("ratio")->isType(QelNamedNumPropertyI::GetTypeInfo()));
  EXPECT_FALSE(x->getProperty("ratio")->isType(QelNamedIntPropertyI::GetTypeInfo()));
  EXPECT_TRUE(x->getProperty("ratio")->isType(QelNamedPropertyI::GetTypeInfo()));
  EXPECT_EQ(Names(x->getProperties()),
            (std::vector<std::string>{"label", "user", "ratio", "priority"}));

  x->setAnyProperty("user", nullptr);
  EXPECT_EQ(x->getAnyProperty("user"), nullptr);
  x->setNumProperty("ratio", -2.5);
  EXPECT_EQ(x->getNumProperty("ratio"), -2.5);
  x->end();
  env.end();
}

TEST(Property, StringValuesAreCopied) {
  QelEnv env;
  PropLeafI* x = Leaf(env);
  char text[] = "first value";
  x->setStringProperty("s", text);
  std::strcpy(text, "overwritten");
  EXPECT_STREQ(x->getStringProperty("s"), "first value");
  EXPECT_NE(x->getStringProperty("s"), text);

  QelInt withFirst = BytesInUse(env);
  x->setStringProperty("s", "a much longer second value than the first");
  EXPECT_STREQ(x->getStringProperty("s"), "a much longer second value than the first");
  // Setting the property's own value again is safe.
  x->setStringProperty("s", x->getStringProperty("s"));
  EXPECT_STREQ(x->getStringProperty("s"), "a much longer second value than the first");
  x->setStringProperty("s", "first value");
  EXPECT_EQ(BytesInUse(env), withFirst);  // the old copies went back
  x->setStringProperty("s", nullptr);
  EXPECT_EQ(x->getStringProperty("s"), nullptr);
  x->end();
  env.end();
}

// ---- removal ----------------------------------------------------------------------

TEST(Property, RemoveByName) {
  QelEnv env;
  PropLeafI* x = Leaf(env);
  EXPECT_EQ(MessageOf<NotPresent>([&] { x->removeProperty("a"); }), "a");
  x->setLocation("f.cpp", 1);  // an extension without a set
  EXPECT_EQ(MessageOf<NotPresent>([&] { x->removeProperty("a"); }), "a");
  x->setIntProperty("a", 1);
  x->setIntProperty("b", 2);
  x->setIntProperty("c", 3);
  EXPECT_TRUE(x->removeProperty("b"));
  EXPECT_FALSE(x->hasProperty("b"));
  EXPECT_FALSE(x->removeProperty("b"));  // a set without it: false
  EXPECT_FALSE(x->removeProperty("zzz"));
  EXPECT_EQ(Names(x->getProperties()), (std::vector<std::string>{"a", "c"}));
  EXPECT_TRUE(x->removeProperty("a"));
  EXPECT_TRUE(x->removeProperty("c"));
  EXPECT_EQ(x->getProperties()->getSize(), 0);
  x->end();
  env.end();
}

TEST(Property, RemoveByProperty) {
  QelEnv env;
  QelGenAlloc* alloc = env.getImpl()->getGeneralAllocator();
  PropLeafI* x = Leaf(env);
  QelNamedIntPropertyI* loose = QelNamedIntPropertyI::Make(alloc, "loose", 1);

  // No extension: NotPresent built from the property.
  try {
    x->removeProperty(loose);
    ADD_FAILURE() << "no exception";
  } catch (const NotPresent& e) {
    EXPECT_STREQ(e.getMessage(), "loose");
    EXPECT_EQ(e.getProperty(), loose);
  }
  EXPECT_EQ(x->getExtension(), nullptr);
  // An extension without a set: the same.
  x->setObject(&alloc);
  try {
    x->removeProperty(loose);
    ADD_FAILURE() << "no exception";
  } catch (const NotPresent& e) {
    EXPECT_STREQ(e.getMessage(), "loose");
    EXPECT_EQ(e.getProperty(), loose);
  }
  // A set that does not hold it: false, and the caller keeps it.
  x->setIntProperty("held", 2);
  EXPECT_FALSE(x->removeProperty(loose));
  EXPECT_EQ(loose->getValue(), 1);
  QelNamedPropertyI* held = x->getProperty("held");
  EXPECT_TRUE(x->removeProperty(held));
  EXPECT_FALSE(x->hasProperty("held"));
  loose->end();
  x->end();
  EXPECT_EQ(BytesInUse(env), 0);
  env.end();
}

TEST(Property, NotPresentKeepsThePropertyWhenKnown) {
  NotPresent byName("n");
  EXPECT_STREQ(byName.getMessage(), "n");
  EXPECT_EQ(byName.getProperty(), nullptr);
  EXPECT_EQ(byName.getCode(), 0);
  BadType bad("b");
  EXPECT_STREQ(bad.getMessage(), "b");
  EXPECT_EQ(bad.getCode(), 0);
  const QelException& asBase = bad;
  EXPECT_STREQ(asBase.getMessage(), "b");
}

// ---- adding properties --------------------------------------------------------------

TEST(Property, AddPropertyOwnsAndAddClonedPropertyCopies) {
  QelEnv env;
  QelGenAlloc* alloc = env.getImpl()->getGeneralAllocator();
  PropLeafI* x = Leaf(env);
  QelNamedNumPropertyI* owned = QelNamedNumPropertyI::Make(alloc, "owned", 1.5);
  x->addProperty(owned);
  EXPECT_EQ(x->getProperty("owned"), owned);
  EXPECT_EQ(x->getNumProperty("owned"), 1.5);

  QelNamedStringPropertyI* mine = QelNamedStringPropertyI::Make(alloc, "copied", "text");
  x->addClonedProperty(mine);
  QelNamedPropertyI* copy = x->getProperty("copied");
  EXPECT_NE(copy, mine);
  EXPECT_STREQ(x->getStringProperty("copied"), "text");
  mine->setValue("changed");
  EXPECT_STREQ(x->getStringProperty("copied"), "text");
  mine->end();

  // A property of an existing name replaces it.
  x->addProperty(QelNamedIntPropertyI::Make(alloc, "owned", 9));
  EXPECT_EQ(x->getIntProperty("owned"), 9);
  EXPECT_EQ(x->getProperties()->getSize(), 2);
  x->end();
  EXPECT_EQ(BytesInUse(env), 0);
  env.end();
}

TEST(Property, AddPropertiesCopiesAnotherSetInOrder) {
  QelEnv env;
  PropLeafI* from = Leaf(env);
  PropLeafI* to = Leaf(env);
  from->setIntProperty("i", 1);
  from->setStringProperty("s", "text");
  from->setNumProperty("n", 0.5);
  to->setIntProperty("first", 0);
  to->addProperties(from->getProperties());
  EXPECT_EQ(Names(to->getProperties()), (std::vector<std::string>{"first", "i", "s", "n"}));
  EXPECT_EQ(to->getIntProperty("i"), 1);
  EXPECT_STREQ(to->getStringProperty("s"), "text");
  EXPECT_NE(to->getProperty("s"), from->getProperty("s"));
  EXPECT_EQ(to->getNumProperty("n"), 0.5);
  // The source is untouched and independent.
  EXPECT_EQ(from->getProperties()->getSize(), 3);
  from->setIntProperty("i", 7);
  EXPECT_EQ(to->getIntProperty("i"), 1);
  // Onto a bare object: the extension and the set are made.
  PropLeafI* bare = Leaf(env);
  bare->addProperties(from->getProperties());
  EXPECT_EQ(bare->getIntProperty("i"), 7);
  from->end();
  EXPECT_STREQ(to->getStringProperty("s"), "text");
  to->end();
  bare->end();
  EXPECT_EQ(BytesInUse(env), 0);
  env.end();
}

TEST(Property, SetPropertiesAttachesAndDetaches) {
  QelEnv env;
  PropLeafI* x = Leaf(env);
  x->setProperties(nullptr);
  EXPECT_EQ(x->getExtension(), nullptr);
  QelNamedPropertySetI* set = QelNamedPropertySetI::Make(env.getMemoryManager());
  set->addProperty(QelNamedIntPropertyI::Make(env.getImpl()->getGeneralAllocator(), "k", 4));
  x->setProperties(set);
  ASSERT_NE(x->getExtension(), nullptr);
  EXPECT_EQ(x->getProperties(), set);
  EXPECT_EQ(x->getIntProperty("k"), 4);
  x->setProperties(nullptr);  // the set is ended with its properties
  EXPECT_EQ(x->getProperties(), nullptr);
  EXPECT_FALSE(x->hasProperty("k"));
  x->end();
  EXPECT_EQ(BytesInUse(env), 0);
  env.end();
}

// ---- the lookup templates ----------------------------------------------------------------

TEST(Property, LookupTemplates) {
  QelEnv env;
  PropLeafI* x = Leaf(env);
  QelSetPropertyValueI<QelNamedIntProperty, QelExtractableI>("t", x, 11);
  QelNamedIntProperty handle;
  QelGetPropertyI<QelNamedIntProperty, QelExtractableI>("t", x, handle);
  ASSERT_NE(handle.getImpl(), nullptr);
  EXPECT_EQ(handle.getValue(), 11);
  EXPECT_STREQ(handle.getName(), "t");
  handle.setValue(12);
  QelInt value = 0;
  QelGetPropertyValueI<QelNamedIntProperty, QelExtractableI>("t", x, value);
  EXPECT_EQ(value, 12);
  QelNamedNumProperty wrong;
  EXPECT_EQ(MessageOf<BadType>(
                [&] { QelGetPropertyI<QelNamedNumProperty, QelExtractableI>("t", x, wrong); }),
            "t");
  EXPECT_EQ(wrong.getImpl(), nullptr);
  EXPECT_EQ(MessageOf<NotPresent>(
                [&] { QelGetPropertyI<QelNamedNumProperty, QelExtractableI>("u", x, wrong); }),
            "u");
  // A handle made from a memory manager.
  QelNamedStringProperty made(env.getMemoryManager(), "m", "value");
  EXPECT_STREQ(made.getValue(), "value");
  x->addProperty(made.getImpl());
  EXPECT_STREQ(x->getStringProperty("m"), "value");
  x->end();
  EXPECT_EQ(BytesInUse(env), 0);
  env.end();
}

// ---- memory ------------------------------------------------------------------------------

TEST(Property, PropertiesGoWithTheObject) {
  QelEnv env;
  QelInt before = BytesInUse(env);
  std::vector<PropLeafI*> xs;
  for (int i = 0; i < 20; ++i) {
    PropLeafI* x = Leaf(env);
    x->setIntProperty("i", i);
    x->setNumProperty("half", i / 2.0);
    x->setStringProperty("name", "a label long enough to need its own block");
    x->setAnyProperty("self", x);
    xs.push_back(x);
  }
  EXPECT_GT(BytesInUse(env), before);
  for (PropLeafI* x : xs) x->end();
  EXPECT_EQ(BytesInUse(env), before);
  env.end();
}

TEST(Property, AnUnnamedPropertyDoesNotDisturbLookups) {
  QelEnv env;
  PropLeafI* x = Leaf(env);
  x->setIntProperty("a", 1);
  x->setIntProperty(nullptr, 2);
  x->setIntProperty("b", 3);
  EXPECT_EQ(x->getIntProperty("a"), 1);
  EXPECT_EQ(x->getIntProperty("b"), 3);
  EXPECT_FALSE(x->hasProperty("c"));
  EXPECT_TRUE(x->removeProperty("b"));
  EXPECT_EQ(x->getProperties()->getSize(), 2);
  x->end();
  EXPECT_EQ(BytesInUse(env), 0);
  env.end();
}

}  // namespace

// ---- a release the environment refuses ------------------------------------

TEST(PropertyRemoval, RefusedByTheEnvironmentTheSetKeepsTheProperty) {
  // The property used to leave the set before its release was refused: it
  // was lost, and its memory with it.
  QelEnv env;
  QelModel m(env, "m");
  m.getImpl()->setIntProperty("priority", 3);
  m.getImpl()->setStringProperty("label", "row");
  env.getImpl()->setAllocationDisabled(true);
  EXPECT_THROW(m.getImpl()->removeProperty("priority"), QelEnvAllocationDisabled);
  env.getImpl()->setAllocationDisabled(false);
  EXPECT_EQ(m.getImpl()->getIntProperty("priority"), 3);
  EXPECT_EQ(m.getImpl()->getProperties()->getSize(), 2);
  EXPECT_TRUE(m.getImpl()->removeProperty("priority"));
  EXPECT_EQ(m.getImpl()->getProperties()->getSize(), 1);
  m.end();
  EXPECT_EQ(BytesInUse(env), 0);
  env.end();
}

// ---- a set given to itself ---------------------------------------------------

TEST(PropertyAliasing, AddingTheObjectsOwnSetEndsAndChangesNothing) {
  QelEnv env;
  PropLeafI* x = Leaf(env);
  x->setIntProperty("i", 1);
  x->setStringProperty("s", "text");
  QelNamedPropertyI* s = x->getProperty("s");
  x->addProperties(x->getProperties());
  EXPECT_EQ(Names(x->getProperties()), (std::vector<std::string>{"i", "s"}));
  EXPECT_EQ(x->getIntProperty("i"), 1);
  EXPECT_STREQ(x->getStringProperty("s"), "text");
  EXPECT_EQ(x->getProperty("s"), s);
  x->end();
  EXPECT_EQ(BytesInUse(env), 0);
  env.end();
}

TEST(PropertyAliasing, AddingAPropertyAlreadyInTheSetKeepsItLinkedOnce) {
  QelEnv env;
  QelGenAlloc* alloc = env.getImpl()->getGeneralAllocator();
  PropLeafI* x = Leaf(env);
  QelNamedNumPropertyI* p = QelNamedNumPropertyI::Make(alloc, "p", 2.5);
  QelNamedIntPropertyI* unnamed = QelNamedIntPropertyI::Make(alloc, nullptr, 4);
  x->addProperty(p);
  x->addProperty(unnamed);
  x->setIntProperty("q", 3);
  x->addProperty(p);
  x->addProperty(unnamed);
  EXPECT_EQ(x->getProperties()->getSize(), 3);
  EXPECT_EQ(x->getProperty("p"), p);
  EXPECT_EQ(x->getNumProperty("p"), 2.5);
  // Each property is linked once: the walk ends after three.
  long walked = 0;
  for (QelNamedPropertyI* q = x->getProperties()->getFirst(); q != nullptr && walked < 10;
       q = q->getNext())
    ++walked;
  EXPECT_EQ(walked, 3);
  x->end();
  EXPECT_EQ(BytesInUse(env), 0);
  env.end();
}
