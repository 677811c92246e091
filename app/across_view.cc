#include "across_view.h"

#include <QLabel>
#include <QVBoxLayout>

namespace dedup::app {

AcrossView::AcrossView(QWidget* parent) : QWidget(parent) {
    auto* title = new QLabel(tr("Identical files on different disks"), this);
    QFont font = title->font();
    font.setBold(true);
    if (font.pointSizeF() > 0) font.setPointSizeF(font.pointSizeF() * 1.3);
    title->setFont(font);
    auto* text = new QLabel(tr("Copies on two different disks cannot share their blocks, so the space they take can "
                               "only come back by moving one copy to the Trash after the other has been checked "
                               "again. In this version the search runs from the command line: \"dedup across FOLDER...\" "
                               "lists identical files and folders on different disks, and \"dedup trash PATH --keep "
                               "OTHER\" moves one copy to its disk's Trash after checking both. This screen will "
                               "list them too."),
                            this);
    text->setWordWrap(true);
    text->setSizePolicy(QSizePolicy::Preferred, QSizePolicy::Maximum);
    title->setSizePolicy(QSizePolicy::Preferred, QSizePolicy::Maximum);
    auto* layout = new QVBoxLayout(this);
    const int margin = title->fontMetrics().height() * 3;
    layout->setContentsMargins(margin, margin, margin, 0);
    layout->setSpacing(margin / 3);
    layout->addWidget(title, 0, Qt::AlignHCenter);
    layout->addWidget(text);
    layout->addStretch();
}

}  // namespace dedup::app
