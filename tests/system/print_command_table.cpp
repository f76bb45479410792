// Prints what the running daemon has registered, as protocol/check.py reads it.

#include <exception>
#include <iostream>

#include "handset/handset.h"

int main() {
  try {
    handset::Handset phone({.daemon = FTM_TABLE_PROBE});
    phone.start();
    std::cout << phone.output();
  } catch (const std::exception& error) {
    std::cerr << error.what() << "\n";
    return 1;
  }
  return 0;
}
