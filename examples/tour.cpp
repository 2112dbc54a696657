// Placeholder for the guided tour of the library; replace with the real tour.
#include <iostream>

#include <qel/kernel/export.h>

int main() {
  std::cout << "The Qel tour is not written yet.\n";
  return 0;
}
