#include <unistd.h>
int main() { pause(); }
