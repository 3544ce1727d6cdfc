/* An outside driver: adds two vectors through an installed libkelRt on the simulated accelerator. */
#include <kelRt.h>
#include <nna_sim.h>

int main(void) {
    KelRtInstance instance = {.device = nna_sim_create()};
    const float x[2] = {1.5f, 2.0f};
    float sum[2] = {0, 0};
    const uint32_t in = nna_sim_add_memory(instance.device, sizeof x),
                   out = nna_sim_add_memory(instance.device, sizeof sum);
    nna_sim_device_write(instance.device, in, 0, x, sizeof x);
    const KelRtContextArg args[] = {{KEL_RT_ARG_VAL, 0, 4},   {KEL_RT_ARG_VAL, 0, 4},
                                    {KEL_RT_ARG_MEM, 0, out}, {KEL_RT_ARG_MEM, 0, in},
                                    {KEL_RT_ARG_MEM, 0, in},  {KEL_RT_ARG_VAL, 0, 2}};
    const KelRtContext context = {.args = args, .num_args = 6, .target = KEL_RT_TARGET_CPU};
    const uint32_t status = kelRt_executeContext(&instance, &context);
    nna_sim_device_read(instance.device, out, 0, sum, sizeof sum);
    nna_sim_destroy(instance.device);
    return status == NNA_STATUS_OK && sum[0] == 3.0f && sum[1] == 4.0f ? 0 : 1;
}
