// The input is an identifier, or the path of a desktop file.

#include "fuzz.h"

#include "Core/application_id.h"
#include "Core/application_instance_id.h"
#include "Core/application_task_id.h"
#include "Core/process_id.h"

using namespace Core;
using Fuzz::check;

namespace {

void lookAt(const Identifier &id)
{
    check(id.text().startsWith(id.toString()), "the application is the beginning");
    if (!id.isValid()) {
        check(id.name().isEmpty(), "what is invalid has no name");
        return;
    }
    check(!id.organisation().isEmpty(), "there is an organisation");
    check(!id.name().isEmpty(), "there is a name");
    check(id.toString() == id.organisation() + QLatin1Char('.') + id.name(), "the parts make the whole");
    check(id.applicationId().toString() == id.toString(), "the application stands for itself");
    const ApplicationId again(id.toString());
    check(again.isValid() && again.organisation() == id.organisation(), "the application is read again");
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size)
{
    const QString text = QString::fromUtf8(Fuzz::bytes(data, size));

    const ApplicationId application(text);
    check(application.text() == text, "the text is kept");
    lookAt(application);

    const ApplicationInstanceId instance(text);
    check(instance.text() == text, "the text is kept");
    lookAt(instance);
    check(instance.hasInstance() || instance.instance().isEmpty() || !instance.isValid(), "instances agree");

    const ApplicationTaskId task(text);
    check(task.text() == text, "the text is kept");
    lookAt(task);
    check(task.isValid() != task.taskName().isEmpty(), "a task has a name");
    check(!task.isValid() || ApplicationTaskId(task.applicationId(), task.taskName()) == task,
          "a task is made of its parts");

    const ProcessId process(text);
    check(process.isEmpty() || process.text() == text, "the text is kept or dropped");
    lookAt(process);
    check(!process.isValid() || instance.isValid() || task.isValid(), "a process is one of the two");

    if (!text.isEmpty()) {
        (void)ApplicationTaskId::isValidTaskName(text);
    }
    const ApplicationId fromFile = ApplicationId::fromDesktopFile(text + QLatin1String(".desktop"));
    check(fromFile.isEmpty() == (text.isEmpty() || text.endsWith(QLatin1Char('/'))),
          "a file's name is an id");
    check(fromFile.isValid() || fromFile.isEmpty() || fromFile.text().size() > 32767, "and a valid one");
    check(!fromFile.text().contains(QLatin1Char('/')), "and no path");
    return 0;
}
