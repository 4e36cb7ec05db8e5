// Runs the program's help in this process and asks the system for the process's error mode before and after.
// Both stand on standard error, the help on standard output.

#include <windows.h>

#include <iostream>

#include "app/EntryPoint.h"

int main() {
  ::SetErrorMode(0);
  std::cerr << "before " << ::GetErrorMode() << std::endl;
  const char* const arguments[] = {"keltop", "-h"};
  const int code = keltop::run(2, arguments);
  std::cerr << "after " << ::GetErrorMode() << std::endl;
  return code;
}
