// Gives every subsystem library at least one object, so a library whose
// sources are still to come links like the others.
namespace tty_hub_link_anchor {}
