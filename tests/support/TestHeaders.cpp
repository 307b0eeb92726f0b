// Has the headers that are compiled once for all test programs; there is nothing to run.
int main() {}
