/* Loads the installed library and prints its version. */
#include <stdio.h>

#include <tovra/tovra.h>

int main(void)
{
    printf("tovra %s\n", TOVRA_GetVersion());
    return 0;
}
