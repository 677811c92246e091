// The Across Disks screen. Copies on different disks cannot share blocks, so finding them needs a
// search of its own that does not exist yet; until it does, this screen says so plainly instead of
// offering something that does nothing.
#pragma once

#include <QWidget>

namespace dedup::app {

class AcrossView : public QWidget {
    Q_OBJECT
public:
    explicit AcrossView(QWidget* parent = nullptr);
};

}  // namespace dedup::app
