#pragma once
// Folds incremental read results into the rows a caller holds.
#include <algorithm>
#include <functional>
#include <utility>
#include <vector>

#include "AimwiseCore/events/incremental_jsonl_reader.h"

namespace aimwise {

template <typename Row>
struct DeltaFold {
    std::vector<Row> committed;
    std::function<bool(const Row&, const Row&)> isOrderedBefore;

    explicit DeltaFold(std::function<bool(const Row&, const Row&)> orderedBefore)
        : isOrderedBefore(std::move(orderedBefore)) {}

    template <typename Transform>
    void apply(IncrementalReadResult<Row> result, Transform&& transform) {
        std::vector<Row> rows = transform(std::move(result.rows));
        if (result.kind == IncrementalReadResult<Row>::Kind::reset) {
            committed = std::move(rows);
        } else {
            committed.insert(committed.end(), std::make_move_iterator(rows.begin()),
                             std::make_move_iterator(rows.end()));
        }
    }

    void apply(IncrementalReadResult<Row> result) {
        apply(std::move(result), [](std::vector<Row> rows) { return rows; });
    }

    // Stable, so rows with equal keys keep their file order.
    std::vector<Row> sorted() const {
        std::vector<Row> rows = committed;
        std::stable_sort(rows.begin(), rows.end(), isOrderedBefore);
        return rows;
    }
};

}  // namespace aimwise
