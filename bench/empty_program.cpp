// The shortest life of a C++ program: loaded, its standard library with it, and ended. The start of
// the collector is measured against it.
int main() {}
