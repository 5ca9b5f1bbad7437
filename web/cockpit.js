// The client library of Cockpit, which index.html loads as a script.
export default window.cockpit;
