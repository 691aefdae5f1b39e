// st_control: the field tool that drives the STM32 supervisor microcontroller
// from the terminal's shell, with the options of st_soft_control.
#include "lib/st_control/st_control.h"
#include "platform/platform.h"

int main(int argc, char **argv)
{
    plat_require_root(argv[0]);
    return st_soft_control(argc, argv);
}
