#include <string.h>

int main(int argc, char **argv)
{
    return argc == 3 && strcmp(argv[1], "an argument") == 0 && strcmp(argv[2], "two;words") == 0 ? 0 : 1;
}
