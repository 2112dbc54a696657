// The snippets of the guide's section "Names and properties"
// (docs/guide.md), run and checked.
#include <cstring>
#include <iostream>

#include <qel/qel.h>

#include "guide_check.h"

int main() {
  using guide::Check;
  using guide::Expect;

  guide::Section("Names and properties");
  guide::Capture out;
  QelEnv env;

  // guide: names
  QelIntVar x(env, 0, 10);       // no name yet
  QelIntVar y(env, 0, 10, "y");  // named at construction, no notice
  std::cout << (x.getName() == nullptr) << " " << x << " " << y << "\n";
  x.setName("x");  // a copy is stored; QelSetNameChange
  std::cout << x.getName() << " " << x + y << "\n";
  Expect(out.take(), "1 QelIntVar0 y\nx x + y\n", "names");

  // guide: array names
  QelIntVarArray v(env, 3, 0, 5);
  v.setNames("v");  // one QelSetNameArrayChange for all
  std::cout << v[0] << " " << v[2] << "\n";
  Expect(out.take(), "v(0) v(2)\n", "array names");

  // guide: properties
  QelExtractableI* xi = x.getImpl();
  xi->setIntProperty("priority", 3);
  xi->setNumProperty("weight", 0.5);
  xi->setStringProperty("label", "capacity row");  // the text is copied
  xi->setIntProperty("priority", 4);               // replaces the value
  std::cout << xi->getIntProperty("priority") << " " << xi->getNumProperty("weight") << " "
            << xi->getStringProperty("label") << "\n";
  try {
    xi->getNumProperty("priority");  // an integer property
  } catch (const QelNamedPropertySet::BadType& e) {
    std::cout << "BadType: " << e.getMessage() << "\n";
  }
  try {
    xi->getIntProperty("colour");
  } catch (const QelNamedPropertySet::NotPresent& e) {
    std::cout << "NotPresent: " << e.getMessage() << "\n";
  }
  std::cout << xi->hasProperty("weight") << xi->removeProperty("weight")
            << xi->hasProperty("weight") << "\n";
  Expect(out.take(),
         "4 0.5 capacity row\n"
         "BadType: priority\n"
         "NotPresent: colour\n"
         "110\n",
         "properties");

  // guide: walking properties
  for (QelNamedPropertyI* p = xi->getProperties()->getFirst(); p != nullptr; p = p->getNext())
    std::cout << p->getName() << " ";
  std::cout << "\n";
  Check(xi->getProperties()->getSize() == 2, "two properties left");
  Expect(out.take(), "priority label \n", "walking properties");

  // guide: location and user object
  struct RowInfo {
    int row;
  } info{7};
  xi->setLocation(__FILE__, __LINE__);  // where the object was made
  xi->setObject(&info);                 // any pointer; stays the caller's
  std::cout << static_cast<RowInfo*>(xi->getObject())->row << " " << (xi->getLine() > 0) << "\n";
  Expect(out.take(), "7 1\n", "location and user object");
  Check(std::strstr(xi->getFile(), "guide_names.cpp") != nullptr, "the file is kept");

  // guide: names go with the object
  QelInt before = env.getImpl()->getBytesInUse();
  QelIntVar tmp(env, 0, 1, "a rather long name for a temporary variable");
  tmp.getImpl()->setIntProperty("scratch", 1);
  tmp.end();  // name and properties go with it
  Check(env.getImpl()->getBytesInUse() == before, "name and properties released");

  v.end();
  env.end();
  return guide::Result();
}
