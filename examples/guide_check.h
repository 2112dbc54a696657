// What the guide programs (examples/guide_*.cpp) share: a capture of what
// a snippet prints, and checks that count what does not hold.
//
// Each program runs the snippets of one section of docs/guide.md, marked in
// the program with a comment "// guide: <section>". Where the guide shows
// printed text, the program captures std::cout around the snippet and
// compares the text exactly. main() returns GuideResult(): non-zero when a
// check failed.
#ifndef QEL_EXAMPLES_GUIDE_CHECK_H
#define QEL_EXAMPLES_GUIDE_CHECK_H

#include <cstdio>
#include <iostream>
#include <sstream>
#include <string>

namespace guide {

/// Number of checks that did not hold so far.
inline int& Failures() {
  static int failures = 0;
  return failures;
}

/// Records a failure of `what` unless `ok`.
inline void Check(bool ok, const std::string& what) {
  if (ok) return;
  ++Failures();
  std::cerr << "guide check failed: " << what << "\n";
}

/// Compares printed text with what the guide shows.
inline void Expect(const std::string& actual, const std::string& expected,
                   const std::string& what) {
  if (actual == expected) return;
  ++Failures();
  std::cerr << "guide check failed: " << what << "\n--- expected:\n"
            << expected << "\n--- printed:\n"
            << actual << "\n---\n";
}

/// Sends std::cout into a string while it lives; take() returns what was
/// printed so far (and echoes it to the real standard output).
class Capture {
 public:
  Capture() : _saved(std::cout.rdbuf(_text.rdbuf())) {}
  Capture(const Capture&) = delete;
  Capture& operator=(const Capture&) = delete;
  ~Capture() { std::cout.rdbuf(_saved); }
  std::string take() {
    std::cout.flush();
    std::string s = _text.str();
    _text.str("");
    std::cout.rdbuf(_saved);
    std::cout << s;
    std::cout.rdbuf(_text.rdbuf());
    return s;
  }

 private:
  std::ostringstream _text;
  std::streambuf* _saved;
};

/// Announces a section on the real standard output.
inline void Section(const char* name) { std::cout << "\n== " << name << "\n"; }

/// The exit status of the program: 0 when every check held.
inline int Result() {
  if (Failures() == 0) {
    // Through the C stream: std::cout may still be captured here.
    std::fputs("\nevery check of the guide held\n", stdout);
    return 0;
  }
  std::cerr << Failures() << " check(s) of the guide did not hold\n";
  return 1;
}

}  // namespace guide

#endif
