#include "across_view.h"

#include <QLabel>
#include <QVBoxLayout>

namespace dedup::app {

AcrossView::AcrossView(QWidget* parent) : QWidget(parent) {
    auto* title = new QLabel(tr("Identical files on different disks"), this);
    QFont font = title->font();
    font.setBold(true);
    font.setPointSizeF(font.pointSizeF() * 1.3);
    title->setFont(font);
    auto* text = new QLabel(tr("Copies on two different disks cannot share their blocks, so the space they take can "
                               "only come back by moving one copy to the Trash after the other has been checked "
                               "again. That search is not part of this version yet: Scan & Reclaim works within "
                               "each disk."),
                            this);
    text->setWordWrap(true);
    auto* layout = new QVBoxLayout(this);
    layout->addStretch();
    layout->addWidget(title, 0, Qt::AlignHCenter);
    layout->addWidget(text);
    layout->addStretch(2);
    layout->setContentsMargins(font.pointSize() * 4, 0, font.pointSize() * 4, 0);
}

}  // namespace dedup::app
