#include <QApplication>
#include <QMessageBox>

#include <memory>

#include "app_model.h"

#if __has_include("main_window.h")
#include "main_window.h"
#else
#include <QMainWindow>
namespace dedup::app {
// Until the windows land: an empty window, so the application starts and stops as it will.
class MainWindow : public QMainWindow {
public:
    explicit MainWindow(AppModel&, QWidget* parent = nullptr) : QMainWindow(parent) {}
};
}  // namespace dedup::app
#endif

int main(int argc, char** argv) {
    QApplication application(argc, argv);
    QApplication::setApplicationName("VELMORA.dedup");
    QApplication::setDesktopFileName("org.velmora.dedup");
    std::unique_ptr<dedup::app::AppModel> model;
    try {
        model = std::make_unique<dedup::app::AppModel>();
    } catch (const std::exception& error) {
        QMessageBox::critical(nullptr, "VELMORA.dedup",
                              QString::fromUtf8(error.what()));
        return 1;
    }
    dedup::app::MainWindow window(*model);
    window.show();
    int code = application.exec();
    dedup::app::AppModel::waitForTasks();
    return code;
}
