#include "app/EntryPoint.h"

int main(int count, char** arguments) {
  return keltop::run(count, arguments);
}
