// A program that does nothing, with the daemon's libraries.

int main() {
  return 0;
}
