export { harTasks } from '@ohos/hvigor-ohos-plugin';
