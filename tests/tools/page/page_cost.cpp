// What the texts of a cluster cost. Usage: page_cost [NODES APPS PEERS]
#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <functional>

#include "page_model.h"
#include "zebd_metrics.h"
#include "zebd_page.h"

static void measure(const char *what, const std::function<std::string()> &make)
{
    size_t size = 0;
    std::vector<double> times;
    for (int i = 0; i < 11; i++) {
        auto begin = std::chrono::steady_clock::now();
        size = make().size();
        times.push_back(std::chrono::duration<double, std::milli>(std::chrono::steady_clock::now() - begin).count());
    }
    std::sort(times.begin(), times.end());
    printf("%-14s %9zu bytes, %7.1f ms (%.1f to %.1f)\n", what, size, times[5], times.front(), times.back());
}

int main(int argc, char **argv)
{
    uint32_t nodes = argc > 3 ? (uint32_t)atoi(argv[1]) : 20;
    uint32_t apps = argc > 3 ? (uint32_t)atoi(argv[2]) : 50;
    uint32_t peers = argc > 3 ? (uint32_t)atoi(argv[3]) : 16;
    zebd_model_t model = page_model(nodes, apps, peers);
    std::string text;
    printf("%zu instances, %zu pairs\n", model.insts.size(), model.pairs.size());
    measure("/metrics", [&] { return zebd_metrics(model); });
    measure("/model.json", [&] { return zebd_page_model(model, ops_wall()); });
    measure("/instance.json", [&] {
        (void)zebd_page_instance(model, page_inst(0, 0), ops_wall(), &text);
        return text;
    });
    return 0;
}
