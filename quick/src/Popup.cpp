// The popup as a Qt Quick item: its controller (rows, slider, reports, timer), its picture item,
// its QML component and the library's in-app screen seam.
#include <QPainter>
#include <QQmlComponent>
#include <QQmlEngine>
#include <algorithm>

#include "ImageFetch.h"
#include "Internal.h"
#include "tarn/core/Log.h"
#include "tarn/inapp/InAppManager.h"
#include "tarn/push/TarnSliderPushHelper.h"

namespace tarn::quick::detail {

namespace {

QColor qcolor(const Color& c) {
    return QColor(c.red, c.green, c.blue, c.alpha);
}

QColor qcolor(const std::optional<std::string>& code, const Color& fallback) {
    return qcolor(code ? colorFromCode(*code) : fallback);
}

/// The popup's look and behaviour; the controller gives it its data and takes its actions.
constexpr const char* kPopupQml = R"QML(
import QtQuick
import Tarn

FocusScope {
    id: root
    objectName: "TarnInAppPopup"
    required property QtObject controller
    anchors.fill: parent
    z: 10000000
    focus: true
    Keys.onEscapePressed: controller.dismiss()
    Keys.onLeftPressed: controller.previousImage()
    Keys.onRightPressed: controller.nextImage()

    // The dimmed host: takes every click and wheel so that nothing reaches the page, does nothing.
    Rectangle { anchors.fill: parent; color: Qt.rgba(0, 0, 0, 120 / 255) }
    MouseArea {
        anchors.fill: parent
        acceptedButtons: Qt.AllButtons
        onWheel: (wheel) => wheel.accepted = true
    }

    Rectangle {
        id: card
        objectName: "tarnCard"
        width: Math.min(400, Math.max(200, root.width - 48))
        height: Math.min(column.implicitHeight + 32, Math.max(120, root.height - 48))
        anchors.centerIn: parent
        radius: 14
        color: root.controller.background
        clip: true
        MouseArea {
            anchors.fill: parent
            cursorShape: Qt.PointingHandCursor
            onClicked: root.controller.clickSelf()
        }
        Column {
            id: column
            x: 20; y: 12
            width: card.width - 40
            spacing: 12
            Item {
                width: column.width; height: 26
                Rectangle {
                    objectName: "tarnClose"
                    width: 26; height: 26; radius: 13
                    anchors.right: parent.right; anchors.rightMargin: -8
                    color: closeArea.containsMouse ? Qt.rgba(0, 0, 0, 40 / 255)
                                                   : Qt.rgba(0, 0, 0, 18 / 255)
                    Text { anchors.centerIn: parent; text: "\u2715"; color: "#555555"; font.pixelSize: 13 }
                    MouseArea {
                        id: closeArea
                        anchors.fill: parent
                        hoverEnabled: true
                        cursorShape: Qt.PointingHandCursor
                        onClicked: root.controller.dismiss()
                    }
                }
            }
            Repeater {
                model: root.controller.rows
                delegate: Loader {
                    required property var modelData
                    property var row: modelData
                    width: column.width
                    visible: (row.kind !== "title" && row.kind !== "body") || row.text !== ""
                    sourceComponent: row.kind === "title" ? titleRow
                                   : row.kind === "images" ? imageRow
                                   : row.kind === "body" ? bodyRow : buttonRow
                }
            }
        }
    }

    Component {
        id: titleRow
        Text {
            property string tarnRow: "title"
            objectName: "tarnTitle"
            width: parent.width
            text: parent.row.text
            color: parent.row.color
            font.pixelSize: 19; font.weight: Font.DemiBold
            wrapMode: Text.Wrap; horizontalAlignment: Text.AlignHCenter
        }
    }
    Component {
        id: bodyRow
        Text {
            property string tarnRow: "body"
            objectName: "tarnBody"
            width: parent.width
            text: parent.row.text
            color: parent.row.color
            font.pixelSize: 14
            wrapMode: Text.Wrap; horizontalAlignment: Text.AlignHCenter
        }
    }
    Component {
        id: buttonRow
        Rectangle {
            property string tarnRow: "button"
            objectName: "tarnButton" + parent.row.index
            width: parent.width
            height: Math.max(40, label.implicitHeight + 16)
            radius: 10
            color: parent.row.background
            border.color: Qt.rgba(0, 0, 0, 30 / 255); border.width: 1
            Text {
                id: label
                anchors.centerIn: parent
                width: parent.width - 28
                horizontalAlignment: Text.AlignHCenter
                elide: Text.ElideRight
                text: parent.parent.row.text
                color: parent.parent.row.textColor
                font.pixelSize: 14; font.weight: Font.DemiBold
            }
            MouseArea {
                anchors.fill: parent
                cursorShape: Qt.PointingHandCursor
                onClicked: root.controller.clickButton(parent.parent.row.index)
            }
        }
    }
    Component {
        id: imageRow
        Column {
            property string tarnRow: "images"
            objectName: "tarnSlider"
            width: parent.width
            spacing: 4
            Item {
                width: parent.width
                height: width * 9 / 16
                InAppPicture {
                    objectName: "tarnPicture"
                    anchors.fill: parent
                    controller: root.controller
                }
                MouseArea {
                    property real pressX: 0
                    anchors.fill: parent
                    onPressed: (mouse) => pressX = mouse.x
                    onReleased: (mouse) => {
                        if (mouse.x - pressX <= -40) root.controller.nextImage()
                        else if (mouse.x - pressX >= 40) root.controller.previousImage()
                    }
                }
                Repeater {
                    model: root.controller.imageCount > 1 ? [-1, 1] : []
                    delegate: Rectangle {
                        required property int modelData
                        objectName: modelData < 0 ? "tarnPrevious" : "tarnNext"
                        width: 28; height: 28; radius: 14
                        x: modelData < 0 ? 8 : parent.width - width - 8
                        anchors.verticalCenter: parent.verticalCenter
                        color: arrowArea.containsMouse ? Qt.rgba(0, 0, 0, 140 / 255)
                                                       : Qt.rgba(0, 0, 0, 90 / 255)
                        Text {
                            anchors.centerIn: parent
                            text: modelData < 0 ? "\u2039" : "\u203A"
                            color: "white"; font.pixelSize: 16; font.bold: true
                        }
                        MouseArea {
                            id: arrowArea
                            anchors.fill: parent
                            hoverEnabled: true
                            cursorShape: Qt.PointingHandCursor
                            onClicked: modelData < 0 ? root.controller.previousImage()
                                                     : root.controller.nextImage()
                        }
                    }
                }
            }
            Text {
                width: parent.width
                visible: root.controller.imageCount > 1
                horizontalAlignment: Text.AlignHCenter
                text: (root.controller.currentImage + 1) + " / " + root.controller.imageCount
                color: Qt.rgba(90 / 255, 90 / 255, 90 / 255, 1); font.pixelSize: 11
            }
        }
    }
}
)QML";

/// The slider as the rich-push helper's collection view, so it moves by the same index rules.
class SliderView final : public SliderCollectionView {
  public:
    explicit SliderView(PopupController& popup) : popup_(popup) {}
    double frameWidth() const override { return kCardMaxWidth; }
    void setPagingEnabled(bool) override {}
    void scrollToItem(IndexPath indexPath, SliderScrollPosition, bool) override {
        popup_.showImage(static_cast<int>(indexPath.item));
    }

  private:
    PopupController& popup_;
};

QQmlComponent* popupComponent() {
    auto& state = integration();
    if (!state.engine) {
        state.engine = new QQmlEngine(QCoreApplication::instance());
    }
    static const char* kName = "_tarn_popup_component";
    auto* component = state.engine->findChild<QQmlComponent*>(kName);
    if (!component) {
        component = new QQmlComponent(state.engine, state.engine);
        component->setObjectName(kName);
        component->setData(kPopupQml, QUrl(QStringLiteral("qrc:/tarn/InAppPopup.qml")));
        if (component->isError()) {
            log("popup component: " + component->errorString().toStdString(), kViewTag,
                LogLevel::error);
        }
    }
    return component;
}

/// One presentation: the library makes it, fills `inApp` and `actionItem` and calls `present` on
/// the main queue. The popup's controller then holds it for as long as the popup is up.
class QuickInAppScreen final : public InAppViewController,
                               public std::enable_shared_from_this<QuickInAppScreen> {
  public:
    void present(const ScreenRef& presenter) override {
        if (!onGuiThread()) {
            if (auto* app = QCoreApplication::instance()) {
                QMetaObject::invokeMethod(
                    app, [self = shared_from_this(), presenter] { self->present(presenter); },
                    Qt::QueuedConnection);
            }
            return;
        }
        if (!inApp) {
            return;
        }
        if (inApp->appCommunucation.templateType == InAppType::survey) {
            presentSurvey();
            return;
        }
        QQuickWindow* window = windowOf(objectOf(presenter));
        if (!window) {
            window = hostWindow();
        }
        if (!window) {
            log("no Qt Quick window to show the popup over", kViewTag, LogLevel::error);
            return;
        }
        auto* component = popupComponent();
        auto options = currentOptions();
        auto* controller = new PopupController(shared_from_this(), options.maxPopupImages,
                                               options.imageTimeoutSeconds);
        QObject* made = component->isReady() ? component->createWithInitialProperties(
                                                   {{"controller", QVariant::fromValue(
                                                                       static_cast<QObject*>(
                                                                           controller))}})
                                             : nullptr;
        auto* popup = qobject_cast<QQuickItem*>(made);
        if (!popup) {
            log("popup could not be made: " + component->errorString().toStdString(), kViewTag,
                LogLevel::error);
            delete made;
            delete controller;
            return;
        }
        QQmlEngine::setObjectOwnership(popup, QQmlEngine::CppOwnership);
        popup->setParent(window->contentItem());  // goes with the window
        popup->setParentItem(window->contentItem());
        controller->setParent(popup);
        controller->open(popup);
    }

  private:
    void presentSurvey() {
        const auto& link = inApp->appCommunucation.subInAppCommunication.link;
        QUrl url(QString::fromStdString(link.value_or("")), QUrl::StrictMode);
        if (!link || !url.isValid() || (url.scheme() != "http" && url.scheme() != "https")) {
            log("survey has no web address to show", kViewTag, LogLevel::error);
            return;
        }
        log("survey shown in the system browser", kViewTag, LogLevel::warning);
        if (openExternal(url)) {
            reportOpened();
        } else {
            log("could not open the survey page", kViewTag, LogLevel::error);
        }
    }
};

}  // namespace

PopupController::PopupController(std::shared_ptr<InAppViewController> screen, int maxImages,
                                 int imageTimeoutSeconds)
    : screen_(std::move(screen)) {
    const auto& model = *screen_->inApp;
    background_ = qcolor(colorFromCode(model.appCommunucation.bgColor));
    for (const auto& row : model.presentations) {
        QVariantMap entry;
        if (const auto* title = std::get_if<TitleTableViewCellPresentation>(&row)) {
            entry = {{"kind", "title"},
                     {"text", QString::fromStdString(title->title)},
                     {"color", qcolor(title->color)}};
        } else if (const auto* images = std::get_if<ImageTableViewCellPresentation>(&row)) {
            auto urls = images->imageUrls;
            int most = std::max(1, maxImages);
            if (urls.size() > static_cast<std::size_t>(most)) {
                log("popup carries " + std::to_string(urls.size()) + " images; showing the first " +
                        std::to_string(most),
                    kViewTag, LogLevel::warning);
                urls.resize(static_cast<std::size_t>(most));
            }
            for (auto& url : urls) {
                images_.push_back(Image{std::move(url), 0, {}});
            }
            entry = {{"kind", "images"}};
        } else if (const auto* body = std::get_if<BodyTextTableViewCellPresentation>(&row)) {
            entry = {{"kind", "body"},
                     {"text", QString::fromStdString(body->text)},
                     {"color", qcolor(body->color)}};
        } else if (const auto* cell = std::get_if<ButtonTableViewCellPresentation>(&row)) {
            const auto& button = cell->button;
            entry = {{"kind", "button"},
                     {"index", static_cast<int>(buttons_.size())},
                     {"text", QString::fromStdString(button.text.value_or(""))},
                     {"textColor", qcolor(button.textColor, Color::black())},
                     {"background", qcolor(button.color, Color{0xE8, 0xEA, 0xED, 255})}};
            buttons_.push_back(button);
        }
        rows_.push_back(entry);
    }
    auto* fetcher = new qt::detail::ImageFetcher(this);
    for (int i = 0; i < imageCount(); ++i) {
        bool started = fetcher->fetch(
            images_[i].url, imageTimeoutSeconds,
            [] { return QSize(kCardMaxWidth, kCardMaxWidth * 9 / 16) * 2; },
            [this, i](const QImage& image) {
                images_[i].state = image.isNull() ? 2 : 1;
                images_[i].image = image;
                if (image.isNull()) {
                    log("image " + std::to_string(i + 1) + " could not be shown", kViewTag,
                        LogLevel::warning);
                }
                emit imageChanged();
            });
        if (!started) {
            images_[i].state = 2;
        }
    }
    if (auto seconds = model.configuration.inAppMaxShowDuration; seconds && *seconds > 0) {
        autoDismissMs_ = static_cast<int>(std::min<std::int64_t>(*seconds, 86400) * 1000);
        autoDismiss_ = new QTimer(this);
        autoDismiss_->setSingleShot(true);
        autoDismiss_->setInterval(autoDismissMs_);
        connect(autoDismiss_, &QTimer::timeout, this, [this] { dismiss(); });
    }
}

int PopupController::settledCount() const {
    return static_cast<int>(std::count_if(images_.begin(), images_.end(),
                                          [](const Image& image) { return image.state != 0; }));
}

QString PopupController::imageState() const {
    if (images_.empty()) {
        return {};
    }
    static const char* names[] = {"loading", "loaded", "failed"};
    return names[images_[index_].state];
}

QImage PopupController::currentPicture() const {
    return images_.empty() ? QImage() : images_[index_].image;
}

void PopupController::open(QQuickItem* popup) {
    popup_ = popup;
    if (auto* window = popup->window()) {
        focusBefore_ = window->activeFocusItem();
    }
    popup->forceActiveFocus(Qt::OtherFocusReason);
    screen_->reportOpened();
    if (autoDismiss_) {
        autoDismiss_->start();
    }
}

void PopupController::dismiss() {
    if (finished_) {
        return;
    }
    screen_->reportDismissed();
    finish();
}

void PopupController::clickButton(int index) {
    if (finished_ || index < 0 || index >= static_cast<int>(buttons_.size())) {
        return;
    }
    finish();  // first, so a host callback that opens a dialog finds the popup gone
    screen_->reportButtonClicked(buttons_[static_cast<std::size_t>(index)]);
}

void PopupController::clickSelf() {
    if (!finished_) {
        screen_->reportSelfClicked();
    }
}

int PopupController::nextImage() {
    if (!images_.empty()) {
        SliderView view(*this);
        TarnSliderPushHelper::scrollNextItem(&view, index_, imageCount());
    }
    return index_;
}

int PopupController::previousImage() {
    if (!images_.empty()) {
        SliderView view(*this);
        TarnSliderPushHelper::scrollPreviousItem(&view, index_, imageCount());
    }
    return index_;
}

void PopupController::showImage(int index) {
    if (index >= 0 && index < imageCount()) {
        index_ = index;
        emit imageChanged();
    }
}

void PopupController::finish() {
    finished_ = true;
    if (autoDismiss_) {
        autoDismiss_->stop();
    }
    if (popup_) {
        popup_->setVisible(false);
        popup_->setFocus(false);
        popup_->deleteLater();  // the controller goes with it
    }
    if (focusBefore_ && focusBefore_->isVisible() && focusBefore_->isEnabled()) {
        focusBefore_->forceActiveFocus(Qt::PopupFocusReason);
    }
}

PictureItem::PictureItem(QQuickItem* parent) : QQuickPaintedItem(parent) {
    setAntialiasing(true);
}

void PictureItem::setController(QObject* controller) {
    if (controller_) {
        disconnect(controller_, nullptr, this, nullptr);
    }
    controller_ = qobject_cast<PopupController*>(controller);
    if (controller_) {
        connect(controller_, &PopupController::imageChanged, this, [this] { update(); });
    }
    emit controllerChanged();
    update();
}

void PictureItem::paint(QPainter* painter) {
    QImage image = controller_ ? controller_->currentPicture() : QImage();
    QRectF area(0, 0, width(), height());
    painter->setRenderHint(QPainter::Antialiasing);
    painter->setRenderHint(QPainter::SmoothPixmapTransform);
    if (image.isNull()) {
        painter->setPen(Qt::NoPen);
        painter->setBrush(QColor(128, 128, 128, 40));
        painter->drawRoundedRect(area, 8, 8);
        painter->setPen(QColor(60, 60, 60, 200));
        QString state = controller_ ? controller_->imageState() : QString();
        painter->drawText(area, Qt::AlignCenter,
                          state == "failed" ? tr("Image unavailable") : tr("Loading\u2026"));
        return;
    }
    QSizeF size = image.size().scaled(area.size().toSize(), Qt::KeepAspectRatio);
    QRectF at((width() - size.width()) / 2, (height() - size.height()) / 2, size.width(),
              size.height());
    painter->drawImage(at, image);
}

void registerQmlTypes() {
    static bool done = false;
    if (done) {
        return;
    }
    done = true;
    qmlRegisterUncreatableType<TarnQml>("Tarn", 1, 0, "Tarn",
                                        "Tarn is an attached type: write Tarn.pageName on an item");
    qmlRegisterType<PictureItem>("Tarn", 1, 0, "InAppPicture");
}

void installInAppScreen() {
    InAppManager::shared().registerInAppScreen(
        []() -> std::shared_ptr<InAppViewController> { return std::make_shared<QuickInAppScreen>(); });
}

}  // namespace tarn::quick::detail
